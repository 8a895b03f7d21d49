#include "tools/parameter_commands.h"

#include <algorithm>
#include <iostream>
#include <optional>

#include "tools/parameter_text.h"
#include "tools/safe_text.h"
#include "tools/store_connection.h"
#include "tools/store_watch.h"

namespace mediactl {

namespace {

Outcome failUnknownName(const std::string& parameter) {
    return fail(Outcome::WrongUsage, "\"" + parameter +
                                         "\" is no parameter; \"mediactl list\" names them all, and any " +
                                         "identifier will do, such as 0x7d07000a");
}

// False, with the line said, when one of them is no parameter.
bool parseAll(const std::vector<std::string>& parameters, std::vector<eParam_t>& identifiers) {
    for (const std::string& parameter : parameters) {
        const std::optional<eParam_t> id = parseParameter(parameter);
        if (!id) {
            failUnknownName(parameter);
            return false;
        }
        identifiers.push_back(*id);
    }
    return true;
}

std::string valueText(const ParameterValue& value) {
    return value.isInteger ? std::to_string(value.integer) : printable(value.text);
}

// The type that a value for `id` must have; integerLike: what was given could be one.
Outcome typeFor(StoreConnection& store, eParam_t id, bool integerLike, bool& isInteger) {
    if (const ParameterDescriptor* descriptor = findParameter(id)) {
        isInteger = descriptor->type == ParameterType::Integer;
        return Outcome::Done;
    }
    ParameterValue present;
    const int status = store.read(id, present);
    isInteger = status == kConfigUnknown ? integerLike : present.isInteger;
    return status == kConfigUnknown ? Outcome::Done : outcomeOf(status, id);
}

} // namespace

Outcome getParameters(const std::vector<std::string>& parameters) {
    std::vector<eParam_t> identifiers;
    if (!parseAll(parameters, identifiers)) return Outcome::WrongUsage;
    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::Read);
    if (!store) return failNobodyServes();

    std::string lines;
    for (const eParam_t id : identifiers) {
        ParameterValue value;
        const Outcome outcome = outcomeOf(store->read(id, value), id);
        if (outcome != Outcome::Done) return outcome;
        lines += valueText(value) + "\n";
    }
    std::cout << lines;
    return Outcome::Done;
}

Outcome setParameter(const std::string& parameter, const std::string& value) {
    const std::optional<eParam_t> id = parseParameter(parameter);
    if (!id) return failUnknownName(parameter);
    const std::optional<std::int32_t> integer = parseInteger(value);
    const auto failNoInteger = [&] {
        return fail(Outcome::WrongUsage, "\"" + value + "\" is no 32-bit integer, and " + parameter + " is one");
    };
    // What the command line alone can tell is told before anybody is asked.
    const ParameterDescriptor* descriptor = findParameter(*id);
    if (descriptor && descriptor->type == ParameterType::Integer && !integer) return failNoInteger();

    const std::unique_ptr<StoreConnection> store = StoreConnection::connect(StoreConnection::Access::ReadWrite);
    if (!store) return failNobodyServes();
    ParameterValue given;
    const Outcome outcome = typeFor(*store, *id, integer.has_value(), given.isInteger);
    if (outcome != Outcome::Done) return outcome;
    if (given.isInteger && !integer) return failNoInteger();
    given.integer = integer.value_or(0);
    given.text = value;
    return outcomeOf(store->write(*id, given), *id);
}

Outcome watchParameters(const std::vector<std::string>& parameters) {
    std::vector<eParam_t> identifiers;
    if (!parseAll(parameters, identifiers)) return Outcome::WrongUsage;
    StoreWatch watch(identifiers);
    if (!watch.connect()) return failNobodyServes();

    while (std::cout) {
        ConfigEvent event;
        switch (watch.next(event, -1)) {
        case StoreWatch::Result::Event:
            // Flushed line by line: whoever reads the other end of a pipe wants the change now.
            std::cout << identifierText(event.id) << ' ' << nameOf(event.id) << ' '
                      << (event.isInteger ? std::to_string(event.integer) : printable(event.text)) << std::endl;
            break;
        case StoreWatch::Result::Resync: say("changes came too fast; values in between are missing"); break;
        case StoreWatch::Result::Reconnected: break;
        case StoreWatch::Result::Timeout: break;
        }
    }
    return Outcome::Done; // main reports that standard output does not take any more
}

Outcome listParameters() {
    std::size_t longest = 0;
    for (const ParameterDescriptor& parameter : parameterDescriptors())
        longest = std::max(longest, std::string_view(parameter.name).size());
    for (const ParameterDescriptor& parameter : parameterDescriptors())
        std::cout << identifierText(parameter.id) << "  " << padded(parameter.name, longest) << "  "
                  << (parameter.type == ParameterType::Integer ? "integer" : "string ") << "  "
                  << padded(parameter.access, 3) << "  " << parameter.meaning << '\n';
    return Outcome::Done;
}

} // namespace mediactl
