#include "medium_index.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "clip_examination.h"
#include "clip_examiner.h"
#include "clip_file.h"
#include "clip_reader.h"
#include "encode_type.h"
#include "platform/pellix/diagnostic_line.h"
#include "playlist.h"
#include "printable.h"
#include "shared_segment.h"

using namespace nevo::media;

namespace {

// A file that has the same stamp as before counts as unchanged.
struct FileStamp {
    std::uint64_t number = 0; // on its medium
    std::int64_t size = 0;
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
    bool operator==(const FileStamp&) const = default;
};

enum class Finding { Usable, Unusable, LeaveAlone };

// What an examination found, without the zeros of a record: thousands of them are remembered.
struct Examined {
    Finding finding = Finding::Unusable;
    std::string facts;     // what the record says, for comparing
    std::int32_t time = 0; // clips only
    eEncodeType_t encodeType = kEncodeUnknown;
};

// A file that gives a record its name.
struct File {
    std::string path;
    FileStamp stamp;
    Examined examined;
    bool fresh = false; // examined in this look, and not only remembered
};

class ExaminedFiles {
public:
    std::optional<Examined> find(const std::string& path, const FileStamp& stamp) const {
        const std::lock_guard lock(_lock);
        const auto found = _files.find(path);
        if (found == _files.end() || found->second.first != stamp) return std::nullopt;
        return found->second.second;
    }
    void remember(const std::string& path, const FileStamp& stamp, const Examined& examined) {
        const std::lock_guard lock(_lock);
        _files[path] = {stamp, examined};
    }
    void keepOnly(const std::set<std::string>& paths) {
        const std::lock_guard lock(_lock);
        std::erase_if(_files, [&paths](const auto& file) { return !paths.contains(file.first); });
    }
    void clear() {
        const std::lock_guard lock(_lock);
        _files.clear();
        _leftOut = 0;
    }
    // Whether so many files without a record are news.
    bool isNews(std::size_t leftOut) {
        const std::lock_guard lock(_lock);
        return std::exchange(_leftOut, leftOut) != leftOut && leftOut != 0;
    }

private:
    mutable std::mutex _lock;
    std::map<std::string, std::pair<FileStamp, Examined>> _files; // by path
    std::size_t _leftOut = 0;
};

bool stampOf(const struct stat& status, FileStamp& stamp) {
    if (!S_ISREG(status.st_mode)) return false;
    stamp = {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    return true;
}

void appendNumber(std::string& facts, std::uint32_t number) {
    facts.append(reinterpret_cast<const char*>(&number), sizeof number);
}

template <std::size_t size>
void putText(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

// The two kinds of records. Each tells which files and which names belong to it, how a file is examined, and which of
// the files come first where there is not room for all.

struct ClipKind {
    using Record = Clip;
    static constexpr std::size_t kCapacity = kClipCapacity;
    static constexpr char kPlural[] = "clips";

    // Never destroyed: a thread that outlives main may still look.
    static ExaminedFiles& examinedFiles() {
        static auto& files = *new ExaminedFiles;
        return files;
    }
    static bool isOne(const std::string& path) { return ClipExaminer::isClipPath(path); }
    static std::string nameOfFile(const std::string& path) { return ClipExaminer::clipName(path); }
    static std::string nameOf(const Clip& clip) { return fieldText(clip.name); }
    static bool stamp(const std::string& path, FileStamp& stamp) {
        struct stat status;
        return ::lstat(path.c_str(), &status) == 0 && stampOf(status, stamp);
    }
    static std::string factsOf(const Clip& clip) {
        std::string facts = fieldText(clip.name);
        facts += '\0';
        facts += fieldText(clip.startTimecode);
        facts += '\0';
        facts += fieldText(clip.attributes.text);
        facts += '\0';
        appendNumber(facts, static_cast<std::uint32_t>(clip.time));
        appendNumber(facts, clip.frames);
        return facts;
    }
    // The other way round.
    Clip record(const Examined& examined) const {
        Clip clip{};
        const std::string& facts = examined.facts;
        const std::size_t timecode = facts.find('\0') + 1;
        const std::size_t attributes = facts.find('\0', timecode) + 1;
        const std::size_t numbers = facts.find('\0', attributes) + 1;
        putText(clip.name, facts.substr(0, timecode - 1));
        putText(clip.startTimecode, facts.substr(timecode, attributes - 1 - timecode));
        putText(clip.attributes.text, facts.substr(attributes, numbers - 1 - attributes));
        std::memcpy(&clip.time, facts.data() + numbers, sizeof clip.time);
        std::memcpy(&clip.frames, facts.data() + numbers + sizeof clip.time, sizeof clip.frames);
        clip.sameCodec =
            CIsEncodeType::areEncodeTypesDifferentCodecs(examined.encodeType, encodeTypeInUse) == 0 ? 1 : 0;
        return clip;
    }
    // The worker reads one file while the next ones are opened here.
    static void examine(const std::vector<File*>& files) {
        ClipReader reader;
        for (File* const file : files) {
            file->examined = {};
            auto opened = std::make_unique<ClipFile>(file->path);
            if (!opened->isOpen() || opened->isBeingWritten()) {
                file->examined.finding = Finding::LeaveAlone;
                continue;
            }
            // The name is the clip's identity, and an empty one is part of every other.
            if (nameOfFile(file->path).empty()) continue;
            reader.read(std::move(opened), file->path,
                        [file](ClipReader::Outcome outcome, const ClipFile& read, const QuickTimeHeader& header) {
                            take(outcome, read, header, *file);
                        });
        }
        reader.finish();
    }
    static void take(ClipReader::Outcome outcome, const ClipFile& read, const QuickTimeHeader& header, File& file) {
        if (outcome == ClipReader::Outcome::NotRead) file.examined.finding = Finding::LeaveAlone;
        if (outcome != ClipReader::Outcome::Usable) return;
        Clip clip{};
        fillClip(clip, file.path, read.modified(), header);
        file.examined = {Finding::Usable, factsOf(clip), clip.time, header.encodeType};
    }
    // The newest first: the take numbering must still see the last ones.
    static bool comesFirst(const Examined& a, const std::string& nameOfA, const Examined& b,
                           const std::string& nameOfB) {
        return a.time != b.time ? a.time > b.time : nameOfA > nameOfB;
    }
    static void arrange(std::list<Clip>& records) { records.sort(Clip::compare_clips_by_time); }

    unsigned int encodeTypeInUse;
};

struct PlaylistKind {
    using Record = PlaylistCacheEntry;
    static constexpr std::size_t kCapacity = kPlaylistCapacity;
    static constexpr char kPlural[] = "playlists";

    static ExaminedFiles& examinedFiles() {
        static auto& files = *new ExaminedFiles;
        return files;
    }
    static bool isOne(const std::string& path) {
        return !ClipExaminer::isClipPath(path) && path.find(".playlist") != std::string::npos;
    }
    static std::string nameOfFile(const std::string& path) { return playlistName(path); }
    static std::string nameOf(const PlaylistCacheEntry& playlist) { return playlistName(playlist); }
    static bool stamp(const std::string& path, FileStamp& stamp) {
        struct stat status;
        return ::stat(path.c_str(), &status) == 0 && stampOf(status, stamp);
    }
    static std::string factsOf(const PlaylistCacheEntry& playlist) {
        std::string facts = fieldText(playlist.path);
        facts += '\0';
        facts += fieldText(playlist.text);
        facts += '\0';
        appendNumber(facts, static_cast<std::uint32_t>(playlist.modified));
        return facts;
    }
    static PlaylistCacheEntry record(const Examined& examined) {
        PlaylistCacheEntry playlist{};
        const std::string& facts = examined.facts;
        const std::size_t text = facts.find('\0') + 1;
        const std::size_t number = facts.find('\0', text) + 1;
        putText(playlist.path, facts.substr(0, text - 1));
        putText(playlist.text, facts.substr(text, number - 1 - text));
        std::memcpy(&playlist.modified, facts.data() + number, sizeof playlist.modified);
        return playlist;
    }
    static void examine(const std::vector<File*>& files) {
        for (File* const file : files) {
            file->examined = {};
            PlaylistCacheEntry entry;
            Playlist playlist;
            if (mustBeLeftAlone(file->path)) {
                file->examined.finding = Finding::LeaveAlone;
            } else if (readPlaylistFile(file->path, entry, playlist)) {
                file->examined.finding = Finding::Usable;
                file->examined.facts = factsOf(entry);
            }
        }
    }
    // Links are the reader's to follow. Nothing is left open: where descriptors are short, it needs the one.
    static bool mustBeLeftAlone(const std::string& path) {
        const ClipFile opened(path);
        if (opened.isOpen()) return opened.isBeingWritten();
        struct stat status;
        return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    }
    static bool comesFirst(const Examined&, const std::string& nameOfA, const Examined&, const std::string& nameOfB) {
        return nameOfA < nameOfB;
    }
    static void arrange(std::list<PlaylistCacheEntry>& records) {
        records.sort([](const PlaylistCacheEntry& a, const PlaylistCacheEntry& b) {
            return playlistName(a) < playlistName(b);
        });
    }
};

template <typename Kind>
void examineAnew(const std::vector<File*>& files) {
    Kind::examine(files);
    for (File* const file : files) {
        file->fresh = true;
        if (file->examined.finding != Finding::LeaveAlone)
            Kind::examinedFiles().remember(file->path, file->stamp, file->examined);
    }
}

// The files of the kind, by the names of their records.
template <typename Kind>
std::map<std::string, File> filesOf(const std::string& directory, const std::vector<std::string>& names) {
    std::vector<File> all;
    std::set<std::string> paths;
    for (const std::string& name : names) {
        File file;
        file.path = directory + "/" + name;
        // The stamp is taken before the examination: what changes in between is seen the next time.
        if (!Kind::isOne(file.path) || !Kind::stamp(file.path, file.stamp)) continue;
        paths.insert(file.path);
        all.push_back(std::move(file));
    }
    std::vector<File*> unknown;
    for (File& file : all) {
        if (auto known = Kind::examinedFiles().find(file.path, file.stamp))
            file.examined = std::move(*known);
        else
            unknown.push_back(&file);
    }
    examineAnew<Kind>(unknown);

    std::map<std::string, File> files;
    for (File& file : all) {
        const auto [same, isFirst] = files.try_emplace(Kind::nameOfFile(file.path), file);
        if (isFirst) continue;
        // What is being written is left alone under its name, whatever else has that name.
        const bool isBetter = file.examined.finding == Finding::LeaveAlone ||
                              (file.examined.finding == Finding::Usable &&
                               same->second.examined.finding != Finding::LeaveAlone);
        if (isBetter) same->second = std::move(file);
    }
    Kind::examinedFiles().keepOnly(paths);
    return files;
}

template <typename Kind>
bool bringInStep(const Kind& kind, std::list<typename Kind::Record>& records, const std::string& directory,
                 const std::vector<std::string>& names) {
    std::map<std::string, File> files = filesOf<Kind>(directory, names);
    const std::size_t before = records.size();

    std::set<std::string> kept;
    std::erase_if(records, [&](const typename Kind::Record& record) {
        const std::string name = kind.nameOf(record);
        const auto found = files.find(name);
        if (found == files.end() || kept.contains(name)) return true;
        File& file = found->second;
        const auto agrees = [&] {
            return file.examined.finding == Finding::LeaveAlone ||
                   (file.examined.finding == Finding::Usable && file.examined.facts == kind.factsOf(record));
        };
        if (!agrees() && !file.fresh) examineAnew<Kind>({&file});
        if (agrees()) kept.insert(name);
        return !kept.contains(name);
    });
    bool changed = records.size() != before;

    std::vector<std::pair<const std::string, File>*> missing;
    for (auto& file : files)
        if (file.second.examined.finding == Finding::Usable && !kept.contains(file.first)) missing.push_back(&file);
    std::sort(missing.begin(), missing.end(), [&kind](const auto* a, const auto* b) {
        return kind.comesFirst(a->second.examined, a->first, b->second.examined, b->first);
    });
    std::map<std::string, const Examined*> added;
    std::size_t leftOut = 0;
    for (auto* const file : missing) {
        if (records.size() + added.size() == Kind::kCapacity) {
            ++leftOut;
            continue;
        }
        if (!file->second.fresh) examineAnew<Kind>({&file->second});
        if (file->second.examined.finding == Finding::Usable) added.emplace(file->first, &file->second.examined);
    }
    if (Kind::examinedFiles().isNews(leftOut))
        writeDiagnosticLine(" ClipFinder - " + printable(directory) + " has more " + Kind::kPlural +
                            " than the cache has room for, left out " + std::to_string(leftOut));
    for (const auto& [name, examined] : added) records.push_back(kind.record(*examined));
    changed = changed || !added.empty();
    if (changed) kind.arrange(records);
    return changed;
}

} // namespace

std::optional<std::vector<std::string>> listDirectory(const std::string& path) {
    DIR* directory = ::opendir(path.c_str());
    if (directory == nullptr) {
        writeDiagnosticLine(" ClipFinder - cannot read " + printable(path), errno);
        return std::nullopt;
    }
    std::vector<std::string> names;
    int error = 0;
    for (;;) {
        errno = 0; // the end is told from a failure by it, and making room for a name may set it
        const dirent* const entry = ::readdir(directory);
        error = errno;
        if (entry == nullptr) break;
        names.emplace_back(entry->d_name);
    }
    ::closedir(directory);
    if (error != 0) {
        writeDiagnosticLine(" ClipFinder - reading " + printable(path) + " ended early", error);
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool bringClipsInStep(std::list<Clip>& records, const std::string& directory, const std::vector<std::string>& names,
                      unsigned int encodeType) {
    return bringInStep(ClipKind{encodeType}, records, directory, names);
}

bool bringPlaylistsInStep(std::list<PlaylistCacheEntry>& records, const std::string& directory,
                          const std::vector<std::string>& names) {
    return bringInStep(PlaylistKind{}, records, directory, names);
}

void forgetExaminedFiles() {
    ClipKind::examinedFiles().clear();
    PlaylistKind::examinedFiles().clear();
}
