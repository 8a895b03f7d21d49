#include "tests/media/segment_history.h"

#include <utime.h>

#include <algorithm>
#include <map>
#include <optional>

#include "clip_finder.h"
#include "media/media_cache.h"
#include "tests/fakes/fakes.h"
#include "tests/media/clip_files.h"

using nevo::media::MediaCache;
using namespace clipfiles;

namespace history {

namespace {

constexpr char kFolder[] = "/tmp/history";

struct ClipFile {
    std::string path;
    std::string record; // 6533 bytes without the flag; empty: not usable
    std::string name;
    std::int32_t time = 0;
    bool isProRes = true;
};

struct PlaylistFile {
    std::string path;
    std::string record; // 8196 bytes; empty: refused
    std::string name;
};

std::string word(std::int32_t value) { return {reinterpret_cast<const char*>(&value), sizeof value}; }

std::string field(std::string text, std::size_t size) {
    text.resize(size);
    return text;
}

// What there is on the media: names that are part of other names and of every path, equal times, both codecs.
struct Files {
    std::vector<ClipFile> clips;
    std::vector<PlaylistFile> playlists;

    Files() {
        std::filesystem::remove_all(kFolder);
        for (int variant = 0; variant < 4; ++variant) {
            const std::string folder = std::string(kFolder) + "/" + std::to_string(variant);
            std::filesystem::create_directories(folder);
            for (const char* name : {"Clip_1", "Clip_12", "Clip_2", "h"}) addClip(folder, name, variant);
            addPlaylist(folder, "show.playlist", "show", variant);
            addPlaylist(folder, "show.playlist.bak", "show", variant);
            addPlaylist(folder, "a.playlist", "a", variant);
            addPlaylist(folder, "Show.playlist", "Show", variant);
        }
    }

    void addClip(const std::string& folder, const std::string& name, int variant) {
        ClipFile clip;
        clip.path = folder + "/" + name + (variant == 1 ? ".MOV" : ".mov");
        clip.name = name;
        clip.time = variant == 1 ? 200 : 100;
        clip.isProRes = variant != 2;
        if (variant == 3) {
            writeFile(clip.path, "no clip");
        } else {
            writeFile(clip.path, clipMadeAt(static_cast<std::uint32_t>(clip.time), clip.isProRes ? "apcn" : "AVdn"));
            const std::string attributes =
                clip.isProRes ? "Format\n48p\nHeight\n48\nWidth\n64\nFrame Rate\n23.98\nEncode Type\n2\nAudio Chan\n0\n"
                                "Starting TC\n23:59:59:10"
                              : "Format\n1080p\nHeight\n1080\nWidth\n1920\nFrame Rate\n25\nEncode Type\n6\n"
                                "Audio Chan\n4\nStarting TC\n10:00:00:00";
            clip.record = field(name, 4096) + word(clip.time) + word(clip.isProRes ? 5 : 2) +
                          field(clip.isProRes ? "23:59:59:10" : "10:00:00:00", 28) + '\0' + field(attributes, 2400);
        }
        clips.push_back(clip);
    }

    void addPlaylist(const std::string& folder, const std::string& file, const std::string& name, int variant) {
        PlaylistFile playlist;
        playlist.path = folder + "/" + file;
        playlist.name = name;
        std::string text = R"({"name": "A", "cliplist": ["Clip_1"]})";
        if (variant == 1) text += "\n" + std::string(5000, 'x');
        if (variant == 2) text = R"({"name": "B", "cliplist": []})";
        if (variant == 3) text = R"({"cliplist": ["Clip_1"]})";
        writeFile(playlist.path, text);
        const utimbuf times{1000 + variant, 1000 + variant};
        utime(playlist.path.c_str(), &times);
        if (variant != 3) playlist.record = field(playlist.path, 4096) + field(text, 4096) + word(1000 + variant);
        playlists.push_back(playlist);
    }
};

const Files& files() {
    static const Files files;
    return files;
}

const ClipFile& clipOf(const Step& step) { return files().clips[step.file % files().clips.size()]; }
const PlaylistFile& playlistOf(const Step& step) { return files().playlists[step.file % files().playlists.size()]; }

// The segments by the book. `clips` and `playlists` are their bytes as far as they were ever written.
class Reference {
public:
    std::string clips;
    std::string playlists;

    // The index, or -1.
    int addClip(const ClipFile& clip, unsigned int encodeType) {
        if (clip.record.empty()) return -1;
        std::erase_if(_clips, [&clip](const Held& held) { return held.name == clip.name; });
        const bool same = clip.isProRes ? encodeType >= 1 && encodeType <= 5 : encodeType == 6;
        std::string record = clip.record;
        record[4132] = static_cast<char>(same ? 1 : 0);
        _clips.push_back({clip.name, clip.time, record});
        const int index = static_cast<int>(_clips.size()) - 1;
        std::stable_sort(_clips.begin(), _clips.end(), [](const Held& a, const Held& b) { return a.time < b.time; });
        writeClips();
        return index;
    }
    bool removeClip(const std::string& path) {
        const auto found = std::find_if(_clips.begin(), _clips.end(), [&path](const Held& held) {
            return path.find(held.name) != std::string::npos;
        });
        const bool removed = found != _clips.end();
        if (removed) _clips.erase(found);
        writeClips();
        return removed;
    }
    bool addPlaylist(const PlaylistFile& playlist) {
        if (playlist.record.empty()) return false;
        _playlists[playlist.name] = playlist.record;
        writePlaylists();
        return true;
    }
    void deletePlaylist(const std::string& path) {
        for (auto held = _playlists.begin(); held != _playlists.end(); ++held) {
            if (path.find(held->second.c_str()) == std::string::npos) continue;
            _playlists.erase(held);
            break;
        }
        writePlaylists();
    }

private:
    struct Held {
        std::string name;
        std::int32_t time;
        std::string record;
    };

    static void put(std::string& segment, std::size_t at, const std::string& bytes) {
        if (segment.size() < at + bytes.size()) segment.resize(at + bytes.size());
        segment.replace(at, bytes.size(), bytes);
    }
    void writeClips() {
        put(clips, 0, "SharedClipCache" + word(static_cast<std::int32_t>(_clips.size())));
        for (std::size_t i = 0; i < _clips.size(); ++i) put(clips, 19 + 6536 * i, _clips[i].record);
    }
    void writePlaylists() {
        put(playlists, 0, "SharedPlaylistCache" + word(static_cast<std::int32_t>(_playlists.size())));
        std::size_t at = 23;
        for (const auto& [name, record] : _playlists) {
            put(playlists, at, record);
            at += 8196;
        }
    }

    std::vector<Held> _clips;
    std::map<std::string, std::string> _playlists;
};

// Whether the file holds `expected`, zeros from there on, and is `size` bytes long. The holes are not read: reading
// would fill them.
std::string compare(const char* segment, const std::string& expected, std::int64_t size) {
    const RawSegment raw(segment);
    if (raw.size() != size) return std::string(segment) + " has another size";
    std::string found = raw.bytes(0, expected.size());
    if (found != expected) {
        const auto at = std::mismatch(found.begin(), found.end(), expected.begin()).first - found.begin();
        return std::string(segment) + " differs at byte " + std::to_string(at);
    }
    const int descriptor = open(segment, O_RDONLY | O_CLOEXEC);
    std::string result;
    for (off_t at = static_cast<off_t>(expected.size()); at < size;) {
        at = lseek(descriptor, at, SEEK_DATA);
        if (at == -1) break;
        const off_t end = lseek(descriptor, at, SEEK_HOLE);
        found = raw.bytes(at, static_cast<std::size_t>(end - at));
        if (found.find_first_not_of('\0') != std::string::npos)
            result = std::string(segment) + " is not zero behind byte " + std::to_string(at);
        at = end;
    }
    close(descriptor);
    return result;
}

// Zeros over the first `size` bytes, which is all that was ever written: an empty segment, without the time that it takes to
// give a new one its memory.
void clear(const char* segment, std::size_t size) {
    const std::string zeros(size, '\0');
    const int descriptor = open(segment, O_WRONLY | O_CLOEXEC);
    if (pwrite(descriptor, zeros.data(), size, 0) != static_cast<ssize_t>(size)) unlink(segment);
    close(descriptor);
}

} // namespace

std::ostream& operator<<(std::ostream& out, const Step& step) {
    switch (step.kind) {
    case Kind::AddClip: return out << "add " << clipOf(step).path << " in " << step.encodeType;
    case Kind::RemoveClip: return out << "remove " << clipOf(step).path;
    case Kind::AddPlaylist: return out << "add " << playlistOf(step).path;
    case Kind::DeletePlaylist: return out << "delete " << playlistOf(step).path;
    }
    return out;
}

std::string run(const std::vector<Step>& steps) {
    umask(0);
    // What the last history has left, as far as everything in it is known.
    static std::optional<Reference> last;
    if (last) {
        clear(kClipSegment, last->clips.size());
        clear(kPlaylistSegment, last->playlists.size());
    } else {
        for (const char* name : {kClipSegment, kPlaylistSegment, kClipMutex, kPlaylistMutex}) unlink(name);
    }
    last.reset();
    { const MediaCache made("NewCache"); }
    fakes::Journal journal;
    fakes::FakeConfig config(journal);
    Reference reference;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        bool sameResult = true;
        switch (step.kind) {
        case Kind::AddClip: {
            int index = -1;
            MediaCache("NewCache").AddClip(clipOf(step).path, step.encodeType, index, false);
            sameResult = index == reference.addClip(clipOf(step), step.encodeType);
            break;
        }
        case Kind::RemoveClip:
            sameResult = ClipFinder(&config).removeClip(clipOf(step).path) == reference.removeClip(clipOf(step).path);
            break;
        case Kind::AddPlaylist:
            sameResult = MediaCache("NewCache").AddPlaylist(playlistOf(step).path) ==
                         reference.addPlaylist(playlistOf(step));
            break;
        case Kind::DeletePlaylist:
            MediaCache("NewCache").RemovePlaylist(playlistOf(step).path);
            reference.deletePlaylist(playlistOf(step).path);
            break;
        }
        std::string difference = sameResult ? "" : "the results differ";
        if (difference.empty()) difference = compare(kClipSegment, reference.clips, 26'771'475);
        if (difference.empty()) difference = compare(kPlaylistSegment, reference.playlists, 8'392'727);
        if (!difference.empty()) return difference + " after step " + std::to_string(i);
    }
    last = reference;
    return "";
}

} // namespace history
