// Hosts the parameter store and answers as the recorder's processes would. Each argument is a rule:
//
//   start:ID=VALUE       written before "ready" appears on standard output
//   ID=INTEGER:ID=VALUE  when the first parameter takes the first value, the second one is written; ":end" instead ends
//                        this process. Of several rules for one change all are followed, in order.
//
// A value is an integer, or a text with an apostrophe in front of it.
//
// Ends with the end of standard input.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "classes/config/config_event_listener.h"
#include "config.h"

namespace {

struct Assignment {
    eParam_t id;
    int value;
    std::optional<std::string> text; // instead of the value

    void carryOut(Config& config) const {
        if (text)
            config.setString(id, *text);
        else
            config.setInteger(id, value);
    }
};

struct Rule {
    Assignment when;
    bool end;
    Assignment then;
};

Assignment parse(const std::string& text) {
    const std::size_t equals = text.find('=');
    const std::string value = text.substr(equals + 1);
    return {static_cast<eParam_t>(std::strtoul(text.substr(0, equals).c_str(), nullptr, 0)),
            static_cast<int>(std::strtol(value.c_str(), nullptr, 0)),
            value.starts_with('\'') ? std::optional(value.substr(1)) : std::nullopt};
}

class Answering : public ConfigEventListener {
public:
    Answering(Config& config, std::vector<Rule> rules) : _config(config), _rules(std::move(rules)) {}

    void ParamChanged(eParam_t id, unsigned int value, timeval) override {
        for (const Rule& rule : _rules) {
            if (rule.when.id != id || rule.when.value != static_cast<int>(value)) continue;
            if (rule.end) _exit(0);
            rule.then.carryOut(_config);
        }
    }
    void ParamChanged(eParam_t, std::string, timeval) override {}

private:
    Config& _config;
    std::vector<Rule> _rules;
};

} // namespace

int main(int argc, char** argv) {
    std::vector<Assignment> first;
    std::vector<Rule> rules;
    for (int i = 1; i < argc; ++i) {
        const std::string text = argv[i];
        const std::size_t colon = text.find(':');
        const std::string behind = text.substr(colon + 1);
        if (text.starts_with("start:"))
            first.push_back(parse(behind));
        else
            rules.push_back(
                {parse(text.substr(0, colon)), behind == "end", behind == "end" ? Assignment{} : parse(behind)});
    }

    CreateDescriptors();
    Config* config = GetMappingConfig("udp", false, true);
    ConfigEventChannel* channel = ConfigFactoryImpl::GetInstance().createEventChannel(kConfigEventLocator);
    if (!config || !channel) return 1;
    Answering answering(*config, rules);
    channel->addListener(&answering);
    for (const Assignment& assignment : first) assignment.carryOut(*config);
    std::puts("ready");
    std::fflush(stdout);

    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    ConfigFactoryImpl::GetInstance().release(channel);
    ConfigFactoryImpl::GetInstance().release(config);
    return 0;
}
