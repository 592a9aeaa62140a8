#include "tool/FilesOfVolume.h"

#include "agent/ErrorText.h"
#include "agent/NtfsTime.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// CLI11 knows no word that stands behind an option.
class CFileUsage : public CLI::Formatter {
public:
    explicit CFileUsage(std::string words) : m_Words(std::move(words)) {}

    std::string make_usage(const CLI::App* /*program*/, std::string name) const override {
        return "Usage: " + name + " [OPTIONS] DISK... --volume NAME " + m_Words + "\n";
    }

private:
    std::string m_Words;
};

struct AttributeLetter_t {
    uint32_t bit;
    char letter;
};

constexpr AttributeLetter_t AttributeLetters_[] = {{0x1, 'r'},   {0x2, 'h'},   {0x4, 's'},   {0x20, 'a'},
                                                   {0x200, 'p'}, {0x400, 'l'}, {0x800, 'c'}, {0x4000, 'e'}};

CZuError OpenVolumeOf(const FileArguments_t& arguments, CVolumeSet& set, CNtfsVolume& volume) {
    const std::vector<std::string> disks(arguments.words.begin(),
                                         arguments.words.begin() + static_cast<ptrdiff_t>(arguments.disks));
    CZuError error = OpenDisks(disks, arguments.imageArguments, set);
    if (error.IsErrorSet())
        return error;
    const VolumeInfo_t* const found = set.Find(arguments.volume);
    if (found == nullptr)
        return Refusal(arguments.volume + ": no volume of the disks has that name; `diskstream volumes` lists them");
    error = volume.Open(set, *found);
    if (!error.IsErrorSet())
        PrintWarnings(volume.Warnings());
    return error;
}

}  // namespace

void AddFileArguments(CLI::App& command, FileArguments_t& arguments, const FileWords_t& words) {
    CLI::Option* const all = command.add_option("DISK", arguments.words,
                                                "Disk images, raw files or devices, in front "
                                                "of --volume");
    all->type_name("")->required();
    command
        .add_option_function<std::string>(
            "--volume",
            [&arguments, all](const std::string& name) {
                arguments.volume = name;
                if (arguments.disks == 0)
                    arguments.disks = all->count();
            },
            "Name of the volume, as `diskstream volumes` has it; behind it " + words.names)
        ->type_name("NAME")
        ->required()
        ->trigger_on_parse();
    AddImageArguments(command, arguments.imageArguments);
    command.formatter(std::make_shared<CFileUsage>(words.names));
    command.get_formatter()->label("REQUIRED", "");
    command.get_formatter()->label("Positionals", "Arguments");
}

void CheckFileArguments(const FileArguments_t& arguments, const FileWords_t& words) {
    const size_t rest = arguments.words.size() - arguments.disks;
    if (arguments.disks == 0)
        throw CLI::ValidationError("the disks stand in front of --volume");
    if (rest < words.least)
        throw CLI::ValidationError("behind --volume NAME " + words.names + " is missing");
    if (rest > words.most)
        throw CLI::ValidationError("one argument too many: " + arguments.words.back());
    for (const std::string& word : arguments.words)
        if (word.empty())
            throw CLI::ValidationError("one of the names is empty");
}

int RunOnVolume(const FileArguments_t& arguments, const FileStep_t& step) {
    CVolumeSet set;
    CNtfsVolume volume;
    CZuError error = OpenVolumeOf(arguments, set, volume);
    if (!error.IsErrorSet())
        error = step(volume);
    return error.IsErrorSet() ? Fail(arguments.output, error) : ExitSuccess;
}

int RunOnFile(const FileArguments_t& arguments, const OneFileStep_t& step) {
    return RunOnVolume(arguments, [&](CNtfsVolume& volume) -> CZuError {
        uint64_t frn = 0;
        NtfsFileInfo_t file;
        ZU_RETURN_IF_ERROR(volume.Find(arguments.Rest(0), frn));
        ZU_RETURN_IF_ERROR(volume.Describe(frn, file));
        return ErrorAt(arguments.Rest(0).empty() ? "/" : arguments.Rest(0), step(volume, file));
    });
}

const char* FileKind(const NtfsFileInfo_t& file) {
    if (IsNtfsLink(file.reparseTag))
        return "link";
    return file.isDirectory ? "directory" : "file";
}

std::string AttributeLetters(const NtfsFileInfo_t& file) {
    std::string letters = file.isDirectory ? "d" : "-";
    for (const AttributeLetter_t& each : AttributeLetters_)
        letters += (file.attributes & each.bit) != 0 ? each.letter : '-';
    return letters;
}

Json_t TimeJson(uint64_t time) {
    const std::string text = NtfsTimeText(time);
    return text.empty() ? Json_t() : Json_t(text);
}

void PutFileFacts(const NtfsFileInfo_t& file, Json_t& object) {
    object["frn"] = file.frn;
    if (!file.problem.empty()) {
        object["problem"] = file.problem;
        return;
    }
    object["type"] = FileKind(file);
    object["bytes"] = file.bytes;
    object["attributes"] = file.attributes;
    object["creation"] = TimeJson(file.creation);
    object["modification"] = TimeJson(file.modification);
    object["record_change"] = TimeJson(file.recordChange);
    object["access"] = TimeJson(file.access);
    object["links"] = file.links;
    if (file.reparseTag != 0)
        object["reparse_tag"] = file.reparseTag;
}
