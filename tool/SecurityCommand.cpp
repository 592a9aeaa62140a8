#include <memory>

#include "agent/SecurityText.h"
#include "foundation/detail/ErrorHandling.h"
#include "tool/FilesOfVolume.h"

namespace {

const FileWords_t SecurityWords = {"PATH", 1, 1};

Json_t TextOrNull(const std::string& text) {
    return text.empty() ? Json_t() : Json_t(text);
}

int RunSecurity(const FileArguments_t& arguments) {
    return RunOnFile(arguments, [&](INtfsFiles& volume, const NtfsFileInfo_t& file) -> CZuError {
        std::string descriptor;
        SecurityText_t text;
        ZU_RETURN_IF_ERROR(volume.ReadSecurity(file.frn, descriptor));
        if (descriptor.empty())
            return Refusal("the volume has no security descriptor for it");
        ZU_RETURN_IF_ERROR(DescribeSecurity(descriptor, text));
        if (arguments.output.json)
            PrintJson({{"path", arguments.Rest(0)},
                       {"owner", TextOrNull(text.owner)},
                       {"group", TextOrNull(text.group)},
                       {"dacl", TextOrNull(text.dacl)},
                       {"sacl", TextOrNull(text.sacl)},
                       {"sddl", text.sddl}});
        else
            PrintFacts({{"Owner", text.owner}, {"Group", text.group}, {"DACL", text.dacl}, {"SDDL", text.sddl}});
        return CZuError();
    });
}

}  // namespace

void AddSecurityCommand(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("security", "Show owner, group and access rights of a file of an NTFS volume");
    const auto arguments = std::make_shared<FileArguments_t>();
    AddFileArguments(*command, *arguments, SecurityWords);
    command->add_flag("--json", arguments->output.json, "Print one JSON object");
    command->footer("Rights are shown in SDDL, the words of Windows for them.\n"
                    "Examples:\n"
                    "  diskstream security disk.vmdk --volume Volume1 /Users\n"
                    "  diskstream security --json disk.vmdk --volume Volume1 /");
    command->callback([arguments, &exitCode] {
        CheckFileArguments(*arguments, SecurityWords);
        exitCode = RunSecurity(*arguments);
    });
}
