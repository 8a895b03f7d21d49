#include "clip_reader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include "platform/pellix/diagnostic_line.h"
#include "printable.h"

namespace {

// While the worker has one batch, the next is made ready.
constexpr std::size_t kWindow = 2 * kProbeBatch;

// Numbers seconds the way people write them: "10 s", "0.25 s".
std::string secondsText(std::chrono::milliseconds time) {
    std::string text = std::to_string(time.count() / 1000);
    if (auto rest = std::to_string(time.count() % 1000); rest != "0") {
        rest.insert(0, 3 - rest.size(), '0');
        text += '.' + rest.substr(0, rest.find_last_not_of('0') + 1);
    }
    return text + " s";
}

} // namespace

std::chrono::milliseconds& ClipReader::patience() {
    // A header takes less than a millisecond to read; a medium that is busy or worn may need seconds for it.
    static std::chrono::milliseconds time = std::chrono::seconds(10);
    return time;
}

ClipReader::~ClipReader() {
    if (_worker != nullptr && _batches.empty()) ClipWorker::giveBack(std::move(_worker));
}

void ClipReader::read(std::unique_ptr<ClipFile> file, const std::string& path, Done done) {
    // One series for all readers: what a worker that one of them gave back still has to say is no answer to another.
    static constinit std::atomic<std::uint32_t> serial{0};
    _clips.push_back({std::move(file), path, std::move(done), serial++, false});
    if (_clips.size() >= _sent + kProbeBatch) sendMore();
    while (_clips.size() >= kWindow) {
        sendMore();
        takeAnswers();
    }
}

void ClipReader::finish() {
    while (!_clips.empty()) {
        sendMore();
        takeAnswers();
    }
}

void ClipReader::sendMore() {
    bool isRefused = false;
    while (_sent < _clips.size()) {
        if (_worker == nullptr) _worker = ClipWorker::takeKept();
        int error = 0;
        if (_worker == nullptr && !_isWithoutWorker) _worker = ClipWorker::start(error);
        if (_worker == nullptr) {
            readNothing(error);
            return;
        }
        if (_alone > 0 && _sent > 0) return;
        ProbeRequest requests[kProbeBatch];
        int descriptors[kProbeBatch];
        const std::size_t count = _alone > 0 ? 1 : std::min(_clips.size() - _sent, kProbeBatch);
        for (std::size_t i = 0; i < count; ++i) {
            const Clip& clip = _clips[_sent + i];
            requests[i] = {clip.serial, 0, clip.file->size()};
            descriptors[i] = clip.file->descriptor();
        }
        if (!_worker->send({requests, count}, {descriptors, count})) {
            error = errno;
            // What it has answered until now still counts.
            if (!_batches.empty()) return;
            // It had nothing to do, so no clip has ended it. When the next one takes nothing either, it is no accident.
            _worker.reset();
            if (std::exchange(isRefused, true)) {
                readNothing(error);
                return;
            }
            continue;
        }
        if (_batches.empty()) _since = ChildProcess::Clock::now();
        _batches.push_back(count);
        _sent += count;
    }
}

void ClipReader::readNothing(int error) {
    if (!std::exchange(_isWithoutWorker, true))
        writeDiagnosticLine(" cannot start " + ClipWorker::program() + " to look into clips", error);
    while (!_clips.empty()) settle(Outcome::NotRead, {});
}

void ClipReader::takeAnswers() {
    if (_batches.empty()) return;
    ProbeAnswer answers[kProbeBatch];
    const std::size_t count = _batches.front();
    const auto received = _worker->receive({answers, count}, _since + patience());
    QuickTimeHeader headers[kProbeBatch];
    ProbeVerdict verdicts[kProbeBatch];
    for (std::size_t i = 0; i < count; ++i) {
        verdicts[i] = received == ClipWorker::Received::Answers
                          ? readProbeAnswer(answers[i], _clips[i].serial, headers[i])
                          : ProbeVerdict::Invalid;
        if (verdicts[i] == ProbeVerdict::Invalid) {
            loseWorker(received == ClipWorker::Received::Late);
            return;
        }
    }
    _batches.pop_front();
    _sent -= count;
    _since = ChildProcess::Clock::now();
    for (std::size_t i = 0; i < count; ++i)
        settle(verdicts[i] == ProbeVerdict::Usable ? Outcome::Usable : Outcome::NotUsable, headers[i]);
}

void ClipReader::loseWorker(bool late) {
    const std::size_t lost = _batches.front();
    _worker.reset();
    _batches.clear();
    _sent = 0;
    Clip& first = _clips.front();
    if (lost == 1 && (late || first.again)) {
        writeDiagnosticLine(" cannot look into " + printable(first.path) +
                            (late ? ": that takes more than " + secondsText(patience()) : ": it ends whoever tries"));
        settle(Outcome::NotUsable, {});
        return;
    }
    first.again = lost == 1;
    _alone = std::max(_alone, lost);
}

void ClipReader::settle(Outcome outcome, const QuickTimeHeader& header) {
    // Out of the list before anything is told: whoever is told may ask for more.
    const Clip clip = std::move(_clips.front());
    _clips.pop_front();
    if (_alone > 0) --_alone;
    clip.done(outcome, *clip.file, header);
}
