#include "tools/clip_deletion.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <optional>
#include <set>

#include "clip_examiner.h"
#include "deletion_request.h"
#include "parameters.h"
#include "tools/confirmation.h"
#include "tools/conversation.h"
#include "tools/index_problem.h"
#include "tools/medium_in_use.h"
#include "tools/safe_text.h"

namespace mediactl {

namespace {

using nevo::media::ClipExaminer;
using nevo::media::fieldText;

constexpr char kNothingDeleted[] = "nothing was deleted";
constexpr char kEverything[] = "*";

// Files vanish without an event.
constexpr std::chrono::milliseconds kLookInterval{250};

// A clip that somebody is asked to delete: what the index names and what lies in the maker directory need not agree.
struct Target {
    std::string file; // empty where only the index knows of it
    std::string clip; // its name in the index; empty for a file that is no clip

    std::string shown() const { return printable(file.empty() ? clip : file); }
};

std::string clipOf(const std::string& file) { return ClipExaminer::isClipPath(file) ? ClipExaminer::clipName(file) : ""; }

// The files of the maker directory that "*" stands for; empty when this process cannot look.
std::vector<std::string> visibleFiles(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator at(directory, error);
    for (; !error && at != std::filesystem::directory_iterator(); at.increment(error)) {
        std::error_code unreadable;
        const std::string name = at->path().filename();
        if (!name.starts_with('.') && !std::filesystem::is_directory(at->symlink_status(unreadable)))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// What is on the medium, seen twice: before the request and while it is carried out.
class MediumContents {
public:
    explicit MediumContents(std::string directory) : _directory(std::move(directory)), _visible(canLook()) {}

    // Reads the index; the problem in words when that cannot be done.
    std::string readIndex(unsigned int seconds) {
        const auto reading = nevo::media::readClips(nevo::media::kCachePrefix, seconds);
        const std::string problem = indexProblem(reading.state, reading.error);
        if (!problem.empty()) return problem;
        _clips.clear();
        for (const Clip& clip : reading.records) _clips.insert(fieldText(clip.name));
        return "";
    }

    const std::set<std::string>& clips() const { return _clips; }

    bool hasFile(const std::string& name) const {
        struct stat status;
        return ::lstat(pathOf(name).c_str(), &status) == 0;
    }

    bool hasClip(const std::string& clip) const { return !clip.empty() && _clips.contains(clip); }

    bool isDirectory(const std::string& name) const {
        struct stat status;
        return ::lstat(pathOf(name).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }

    // What cannot be told counts as there.
    bool holds(const Target& target) const {
        if (!target.file.empty() && _visible && !isGone(target.file)) return true;
        return hasClip(target.clip) && !hasOtherFileOf(target.clip);
    }

    std::vector<std::string> files() const { return visibleFiles(_directory); }

private:
    std::string pathOf(const std::string& name) const { return _directory + "/" + name; }

    bool canLook() const { return ::access(_directory.c_str(), X_OK) == 0; }

    // An unmounted medium shows no files either, and none of them is deleted: hence the second look.
    bool isGone(const std::string& name) const {
        struct stat status;
        return ::lstat(pathOf(name).c_str(), &status) == -1 && errno == ENOENT && canLook();
    }

    // "A.mov" and "A.MOV" are one clip to the index: it stays there for the one that is left.
    bool hasOtherFileOf(const std::string& clip) const {
        const std::vector<std::string> names = files();
        return std::any_of(names.begin(), names.end(), [&clip](const std::string& name) { return clipOf(name) == clip; });
    }

    std::string _directory;
    bool _visible; // to this process, when it began
    std::set<std::string> _clips;
};

std::string joined(const std::vector<Target>& targets) {
    std::string text;
    for (const Target& target : targets) text += (text.empty() ? "" : ", ") + target.shown();
    return text;
}

// Says which of the targets are gone, and takes them out.
void tellDeleted(const MediumContents& contents, std::vector<Target>& targets) {
    std::erase_if(targets, [&contents](const Target& target) {
        if (contents.holds(target)) return false;
        std::cout << "deleted: " << target.shown() << std::endl;
        return true;
    });
}

// Posts the request and waits until nothing of the targets is left.
Outcome carryOut(MediumInUse& medium, MediumContents& contents, const std::string& request, std::vector<Target> targets,
                 std::chrono::seconds patience) {
    // The clip index and the current clip tell that something has happened; what has, the medium itself tells.
    Conversation conversation({kParamMediaChangedTime, kParamClipName, kParamClipIndex}, patience);
    if (!conversation.connected()) return failNobodyServes();
    // Looked at again: whoever was asked may have thought about it for long.
    if (const Outcome outcome = medium.refusal(kNothingDeleted); outcome != Outcome::Done) return outcome;
    const Outcome posted = conversation.post(kParamClipsToDelete, ParameterValue{false, 0, request});
    if (posted != Outcome::Done) return posted;

    for (;;) {
        ConfigEvent event;
        const Conversation::News news = conversation.next(event, kLookInterval);
        const std::string problem = contents.readIndex(1);
        // After the index: a medium that leaves says so before its clips leave the index.
        if (news != Conversation::News::Lost && medium.hasChanged())
            return fail(Outcome::Failed, "the medium went out of use meanwhile; mediad may have deleted some of this: " +
                                             joined(targets));
        if (problem.empty()) {
            tellDeleted(contents, targets);
            if (targets.empty()) return Outcome::Done;
        }
        if (news == Conversation::News::Lost) return conversation.failUnanswered(news);
        if (news != Conversation::News::TimedOut) continue;
        const std::string within = " within " + std::to_string(patience.count()) + " seconds";
        if (!problem.empty()) return fail(Outcome::Failed, "mediad did not answer" + within + "; " + problem);
        return fail(Outcome::Failed, "mediad did not delete this" + within + ": " + joined(targets));
    }
}

// Done for names that can be asked for.
Outcome checkNames(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const auto refuse = [&name](const std::string& why) {
            return fail(Outcome::Failed, "\"" + name + "\" " + why + "; " + kNothingDeleted);
        };
        if (name.empty()) return refuse("is no file's name");
        if (name == kEverything) return refuse("is every file: ask for that with --all");
        if (name.find('|') != name.npos) return refuse("cannot be asked for: \"|\" separates the names of a request");
        if (const char* fault = deletionNameFault(name)) return refuse(std::string("cannot be asked for: it ") + fault);
    }
    return Outcome::Done;
}

std::string counted(std::size_t number, const std::string& thing) {
    return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

// What both ways of asking begin with. Done when `contents` says what is on the medium.
Outcome lookAtMedium(std::unique_ptr<MediumInUse>& medium, std::optional<MediumContents>& contents) {
    medium = MediumInUse::look();
    if (!medium) return failNobodyServes();
    if (const Outcome outcome = medium->refusal(kNothingDeleted); outcome != Outcome::Done) return outcome;
    if (medium->storagePath().empty())
        return fail(Outcome::Failed, medium->description() + " is not in use; " + kNothingDeleted);
    contents.emplace(medium->storagePath());
    const std::string problem = contents->readIndex(5);
    return problem.empty() ? Outcome::Done : fail(Outcome::Failed, problem + "; " + kNothingDeleted);
}

} // namespace

Outcome deleteClips(const std::vector<std::string>& names, bool yes, std::chrono::seconds patience) {
    if (const Outcome outcome = checkNames(names); outcome != Outcome::Done) return outcome;
    if (const Outcome outcome = canAsk(yes); outcome != Outcome::Done) return outcome;
    std::unique_ptr<MediumInUse> medium;
    std::optional<MediumContents> contents;
    if (const Outcome outcome = lookAtMedium(medium, contents); outcome != Outcome::Done) return outcome;

    std::string request;
    std::string list;
    std::vector<Target> targets;
    for (const std::string& name : std::set<std::string>(names.begin(), names.end())) {
        const Target target{name, clipOf(name)};
        if (contents->isDirectory(name))
            return fail(Outcome::Failed, "\"" + name + "\" is a directory; " + kNothingDeleted);
        if (!contents->hasFile(name) && !contents->hasClip(target.clip)) {
            std::cout << "not there: " << target.shown() << '\n';
            continue;
        }
        targets.push_back(target);
        request += (request.empty() ? "" : "|") + name;
        list += "  " + target.shown() + "\n";
    }
    if (targets.empty()) return Outcome::Done;

    const std::string question = "On " + medium->description() + ":\n" + list + "Delete " +
                                 (targets.size() == 1 ? "this file" : "these " + counted(targets.size(), "file")) + "?";
    if (const Outcome outcome = confirm(yes, question, kNothingDeleted); outcome != Outcome::Done) return outcome;
    return carryOut(*medium, *contents, request, targets, patience);
}

Outcome deleteEverything(bool yes, std::chrono::seconds patience) {
    if (const Outcome outcome = canAsk(yes); outcome != Outcome::Done) return outcome;
    std::unique_ptr<MediumInUse> medium;
    std::optional<MediumContents> contents;
    if (const Outcome outcome = lookAtMedium(medium, contents); outcome != Outcome::Done) return outcome;

    std::vector<Target> targets;
    std::set<std::string> unseen = contents->clips();
    for (const std::string& name : contents->files()) {
        targets.push_back({name, clipOf(name)});
        unseen.erase(targets.back().clip);
    }
    // Hidden files stay, and so do their clips.
    for (const std::string& clip : unseen)
        if (!clip.starts_with('.')) targets.push_back({"", clip});
    if (targets.empty()) {
        std::cout << "there is nothing to delete\n";
        return Outcome::Done;
    }

    const std::string question = "Delete all " + counted(targets.size(), "file") +
                                 " in the maker directory, clips and playlists, of " + medium->description() + "?";
    if (const Outcome outcome = confirm(yes, question, kNothingDeleted); outcome != Outcome::Done) return outcome;
    return carryOut(*medium, *contents, kEverything, targets, patience);
}

} // namespace mediactl
