#include "tool/FilesOfVolume.h"

#include <cstdio>

#include "agent/CatalogVolume.h"
#include "agent/ErrorText.h"
#include "agent/NtfsTime.h"
#include "agent/NtfsVolume.h"
#include "agent/VolumeSet.h"
#include "foundation/detail/ErrorHandling.h"

namespace {

// CLI11 knows no word that stands behind an option.
class CFileUsage : public CLI::Formatter {
public:
    explicit CFileUsage(std::string words) : m_Words(std::move(words)) {}

    std::string make_usage(const CLI::App* /*program*/, std::string name) const override {
        return "Usage: " + name + " [OPTIONS] SET [--volume NAME] " + m_Words + "\n       " + name +
               " [OPTIONS] DISK... --volume NAME " + m_Words + "\n";
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

std::string NamesOf(const std::vector<SetVolume_t>& volumes) {
    std::string names;
    for (const SetVolume_t& volume : volumes)
        names += (names.empty() ? "" : ", ") + volume.name;
    return names;
}

// The set's only volume needn't be named.
CZuError FindInSet(const CBackupSetReader& set, const std::string& name, const SetVolume_t*& found) {
    const std::vector<SetVolume_t>& volumes = set.Volumes();
    if (volumes.empty())
        return Refusal(set.Path() + ": has no catalogue of files; `diskstream backup --catalog` makes sets with one");
    if (name.empty() && volumes.size() > 1)
        return Refusal(set.Path() + ": has the files of several volumes, name one with --volume: " + NamesOf(volumes));
    for (const SetVolume_t& volume : volumes) {
        if (name.empty() || volume.name == name) {
            found = &volume;
            return CZuError();
        }
    }
    return Refusal(name + ": no volume of " + set.Path() + " has that name; it has " + NamesOf(volumes));
}

int RunOnSet(const FileArguments_t& arguments, const FileStep_t& step) {
    CBackupSetReader set;
    CCatalogVolume volume;
    const SetVolume_t* found = nullptr;
    CZuError error = set.Open(arguments.words.front());
    if (!error.IsErrorSet())
        error = set.OpenBases(arguments.bases);
    if (!error.IsErrorSet())
        error = FindInSet(set, arguments.volume, found);
    if (!error.IsErrorSet())
        error = volume.Open(set, *found);
    if (!error.IsErrorSet())
        error = step(volume);
    return error.IsErrorSet() ? Fail(arguments.output, error) : ExitSuccess;
}

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

int RunOnDisks(const FileArguments_t& arguments, const FileStep_t& step) {
    CVolumeSet set;
    CNtfsVolume volume;
    CZuError error = OpenVolumeOf(arguments, set, volume);
    if (!error.IsErrorSet())
        error = step(volume);
    return error.IsErrorSet() ? Fail(arguments.output, error) : ExitSuccess;
}

// One line, put together by hand: a listing has many.
std::string LineOf(const NtfsEntry_t& entry, bool isLong) {
    std::string line;
    if (isLong) {
        constexpr size_t sizeWidth = 15;
        const std::string size = std::to_string(entry.file.bytes);
        const std::string time = NtfsTimeText(entry.file.modification);
        line = AttributeLetters(entry.file);
        line.append(size.size() < sizeWidth ? sizeWidth - size.size() : 1, ' ').append(size).append("  ");
        if (time.empty())
            line.append("-                  ");
        else
            line.append(time, 0, 10).append(1, ' ').append(time, 11, 8);
        line.append("  ");
    }
    line += Printable(entry.path);
    line += entry.file.isDirectory ? "/\n" : "\n";
    return line;
}

}  // namespace

void AddFileArguments(CLI::App& command, FileArguments_t& arguments, const FileWords_t& words) {
    CLI::Option* const all = command.add_option(
        "DISK", arguments.words, "A backup set with a catalogue, or disks, which stand in front of --volume");
    all->type_name("")->required();
    command
        .add_option_function<std::string>(
            "--volume",
            [&arguments, all](const std::string& name) {
                arguments.volume = name;
                if (arguments.disks == 0)
                    arguments.disks = all->count();
            },
            "Name of the volume, behind it " + words.names + "; a set of one volume needs none")
        ->type_name("NAME")
        ->trigger_on_parse();
    AddBasesOption(command, arguments.bases);
    AddImageArguments(command, arguments.imageArguments);
    command.formatter(std::make_shared<CFileUsage>(words.names));
    command.get_formatter()->label("REQUIRED", "");
    command.get_formatter()->label("Positionals", "Arguments");
}

void CheckFileArguments(FileArguments_t& arguments, const FileWords_t& words) {
    arguments.isSet = arguments.disks <= 1 && IsBackupSet(arguments.words.front());
    if (arguments.volume.empty() && !arguments.isSet)
        throw CLI::RequiredError("--volume");
    if (arguments.volume.empty())
        arguments.disks = 1;
    const size_t rest = arguments.words.size() - arguments.disks;
    if (arguments.disks == 0)
        throw CLI::ValidationError("the disks stand in front of --volume");
    if (rest < words.least)
        throw CLI::ValidationError((arguments.volume.empty() ? "behind the set " : "behind --volume NAME ") +
                                   words.names + " is missing");
    if (rest > words.most)
        throw CLI::ValidationError("one argument too many: " + arguments.words.back());
    for (const std::string& word : arguments.words)
        if (word.empty())
            throw CLI::ValidationError("one of the names is empty");
}

int RunOnVolume(const FileArguments_t& arguments, const FileStep_t& step) {
    return arguments.isSet ? RunOnSet(arguments, step) : RunOnDisks(arguments, step);
}

int RunOnFile(const FileArguments_t& arguments, const OneFileStep_t& step) {
    return RunOnVolume(arguments, [&](INtfsFiles& volume) -> CZuError {
        uint64_t frn = 0;
        NtfsFileInfo_t file;
        ZU_RETURN_IF_ERROR(volume.Find(arguments.Rest(0), frn));
        ZU_RETURN_IF_ERROR(volume.Describe(frn, file));
        return ErrorAt(arguments.Rest(0).empty() ? "/" : arguments.Rest(0), step(volume, file));
    });
}

int EndListing(int exitCode, const std::vector<std::string>& problems) {
    if (problems.empty())
        return exitCode;
    PrintWarnings(problems);
    PrintComplaint("the listing isn't whole: some of it can't be read");
    return ExitFailure;
}

void PrintEntry(const NtfsEntry_t& entry, bool isLong) {
    const std::string line = LineOf(entry, isLong);
    std::fwrite(line.data(), 1, line.size(), stdout);  // a failure is told of at the end
}

CJsonListing::CJsonListing(const std::string& volume, const std::string& path) {
    Json_t head{{"volume", volume}, {"path", path}};
    std::string text = head.dump(-1, ' ', false, Json_t::error_handler_t::replace);
    text.pop_back();
    std::printf("%s,\"entries\":[", text.c_str());
}

void CJsonListing::Put(const NtfsEntry_t& entry) {
    Json_t object{{"path", entry.path}};
    PutFileFacts(entry.file, object);
    std::printf("%s\n%s", m_IsFirst ? "" : ",", object.dump(-1, ' ', false, Json_t::error_handler_t::replace).c_str());
    m_IsFirst = false;
}

void CJsonListing::End(const std::vector<std::string>& problems) {
    std::printf("],\n\"problems\":%s}\n",
                Json_t(problems).dump(-1, ' ', false, Json_t::error_handler_t::replace).c_str());
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
