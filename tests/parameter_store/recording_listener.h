#ifndef MEDIAD_TESTS_RECORDING_LISTENER_H
#define MEDIAD_TESTS_RECORDING_LISTENER_H

// A listener that keeps what it hears, and can be made to stand in its callback.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "classes/config/config_event_listener.h"

class RecordingListener : public ConfigEventListener {
public:
    struct Heard {
        eParam_t id;
        bool isInteger;
        int integer;
        std::string text;
        bool operator==(const Heard&) const = default;
    };

    static Heard integer(eParam_t id, int value) { return {id, true, value, ""}; }
    static Heard text(eParam_t id, std::string value) { return {id, false, 0, std::move(value)}; }

    void ParamChanged(eParam_t id, unsigned int value, timeval when) override {
        hear(integer(id, static_cast<int>(value)), when);
    }
    void ParamChanged(eParam_t id, std::string value, timeval when) override { hear(text(id, value), when); }
    void ParamChanged(ConfigEvent) override { ++generic; }

    // Called in the callback, after the event is kept.
    std::function<void(const Heard&)> act;

    void hold() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _held = true;
    }
    void letGo() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _held = false;
        _changed.notify_all();
    }
    bool waitUntilInside() {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, kPatience, [&] { return _inside; });
    }
    bool isInside() {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _inside;
    }
    // Everything heard, once there are `count` of it or patience is over.
    std::vector<Heard> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait_for(lock, kPatience, [&] { return heard.size() >= count; });
        return heard;
    }

    static constexpr std::chrono::seconds kPatience{60};

    std::vector<Heard> heard;
    std::vector<timeval> times;
    std::thread::id thread;
    int generic = 0;

private:
    void hear(const Heard& what, timeval when) {
        {
            std::unique_lock<std::mutex> lock(_mutex);
            heard.push_back(what);
            times.push_back(when);
            thread = std::this_thread::get_id();
            _inside = true;
            _changed.notify_all();
            _changed.wait(lock, [&] { return !_held; });
        }
        if (act) act(what);
        const std::lock_guard<std::mutex> lock(_mutex);
        _inside = false;
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    bool _held = false;
    bool _inside = false;
};

#endif
