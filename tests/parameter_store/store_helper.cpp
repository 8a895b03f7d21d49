// A process of its own that uses the parameter store as it is told, a command a line on standard input. Each
// command is answered by one line; lines that begin with "event " come whenever a listener is called.

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "classes/config/config_event_listener.h"
#include "config.h"

namespace {

std::mutex outputMutex;

void say(const std::string& line) {
    const std::lock_guard<std::mutex> lock(outputMutex);
    const std::string whole = line + "\n";
    std::size_t done = 0;
    while (done < whole.size()) {
        const ssize_t written = write(STDOUT_FILENO, whole.data() + done, whole.size() - done);
        if (written <= 0) _exit(3);
        done += static_cast<std::size_t>(written);
    }
}

class Listener : public ConfigEventListener {
public:
    void ParamChanged(eParam_t id, unsigned int value, timeval) override {
        hear(id, "I " + std::to_string(static_cast<int>(value)));
    }
    void ParamChanged(eParam_t id, std::string value, timeval) override {
        hear(id, value.size() > 100 ? "L " + std::to_string(value.size()) : "S " + value);
    }

    void hold(bool held) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _held = held;
        _changed.notify_all();
    }

    // What the callback does beside telling.
    std::atomic<bool> exits{false};
    std::atomic<bool> ends{false}; // tells that it is through
    std::atomic<Config*> answersWith{nullptr}; // sets the parameter back to 0 when it is 1
    std::atomic<ConfigEventChannel*> releases{nullptr};
    std::atomic<Config*> releasesConfig{nullptr};

private:
    void hear(eParam_t id, const std::string& value) {
        {
            std::unique_lock<std::mutex> lock(_mutex);
            _changed.wait(lock, [&] { return !_held; });
        }
        char text[9];
        std::snprintf(text, sizeof text, "%08x", static_cast<unsigned int>(id));
        say(std::string("event ") + text + " " + value);
        if (exits) std::exit(1);
        Config* const config = answersWith;
        if (config != nullptr && value == "I 1") {
            const int status = config->setInteger(id, 0);
            say("event answered " + std::to_string(status) + " " + std::to_string(config->getInteger(id)));
        }
        ConfigFactoryImpl::GetInstance().release(releases.exchange(nullptr));
        ConfigFactoryImpl::GetInstance().release(releasesConfig.exchange(nullptr));
        if (ends) say("event end");
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    bool _held = false;
};

// Name and blocked signals of every thread but the main one, and how many sockets there are.
std::string threads() {
    std::string result;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) continue;
        std::ifstream status(task.path() / "status");
        std::string name;
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("Name:")) name = line.substr(6);
            if (line.starts_with("SigBlk:")) result += name + "=" + line.substr(8) + " ";
        }
    }
    std::size_t sockets = 0;
    for (int each = 0; each < 256; ++each) {
        char target[64] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(each);
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target).starts_with("socket:"))
            ++sockets;
    }
    return result + "sockets=" + std::to_string(sockets);
}

eParam_t identifier(const std::string& text) { return static_cast<eParam_t>(std::stoul(text, nullptr, 16)); }

} // namespace

int main() {
    Config* config = nullptr;
    Config* second = nullptr;
    ConfigEventChannel* channel = nullptr;
    // Never gone before the process, as its threads may still call it.
    static Listener& listener = *new Listener;
    ConfigFactoryImpl& factory = ConfigFactoryImpl::GetInstance();

    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        std::string id;
        words >> command;
        if (command == "create") {
            CreateDescriptors();
            say("ok");
        } else if (command == "open" || command == "open2") { // transport, read only, host
            std::string transport;
            bool readOnly = false;
            bool host = false;
            words >> transport >> readOnly >> host;
            Config*& target = command == "open" ? config : second;
            target = GetMappingConfig(transport, readOnly, host);
            say(target != nullptr ? "ok" : "null");
        } else if (command == "channel") {
            std::string locator;
            words >> locator;
            channel = factory.createEventChannel(locator);
            say(channel != nullptr ? "ok" : "null");
        } else if (command == "listen") {
            channel->addListener(&listener);
            say("ok");
        } else if (command == "hold" || command == "go") {
            listener.hold(command == "hold");
            say("ok");
        } else if (command == "exits") {
            listener.exits = true;
            say("ok");
        } else if (command == "answers") {
            listener.answersWith = config;
            say("ok");
        } else if (command == "releases") { // "all": the Config too
            std::string what;
            words >> what;
            if (what == "all") listener.releasesConfig = std::exchange(config, nullptr);
            listener.ends = true;
            listener.releases = std::exchange(channel, nullptr);
            say("ok");
        } else if (command == "seti") {
            int value = 0;
            words >> id >> value;
            say(std::to_string(config->setInteger(identifier(id), value)));
        } else if (command == "sets") {
            std::string value;
            words >> id;
            words.get();
            std::getline(words, value);
            say(std::to_string(config->setString(identifier(id), value)));
        } else if (command == "long") { // a string of so many bytes
            std::size_t size = 0;
            words >> id >> size;
            say(std::to_string(config->setString(identifier(id), std::string(size, 'x'))));
        } else if (command == "geti") {
            words >> id;
            int value = -99;
            const int status = config->getInteger(identifier(id), &value);
            say(std::to_string(status) + " " + std::to_string(value) + " " +
                std::to_string(config->getInteger(identifier(id))));
        } else if (command == "gets") {
            words >> id;
            std::string value = "(none)";
            const int status = config->getString(identifier(id), value);
            say(std::to_string(status) + " " + value);
        } else if (command == "flood") { // first and last value
            int value = 0;
            int last = 0;
            int failed = 0;
            for (words >> id >> value >> last; value <= last; ++value)
                if (config->setInteger(identifier(id), value) != kConfigOk) ++failed;
            say(std::to_string(failed));
        } else if (command == "release") {
            std::string what;
            words >> what;
            if (what == "config") factory.release(std::exchange(config, nullptr));
            if (what == "second") factory.release(std::exchange(second, nullptr));
            if (what == "channel") factory.release(std::exchange(channel, nullptr));
            if (what == "null") factory.release(nullptr);
            say("ok");
        } else if (command == "become") { // user, group, further groups
            uid_t user = 0;
            gid_t group = 0;
            std::vector<gid_t> groups;
            words >> user >> group;
            for (gid_t each = 0; words >> each;) groups.push_back(each);
            const bool done = setgroups(groups.size(), groups.data()) == 0 && setresgid(group, group, group) == 0 &&
                              setresuid(user, user, user) == 0;
            say(done ? "ok" : "failed");
        } else if (command == "threads") {
            say(threads());
        } else if (command == "leave") {
            return 0;
        } else {
            say("what?");
        }
    }
    return 0;
}
