#include "proof/operation.h"

#include <algorithm>
#include <charconv>

namespace vtproof {

namespace {

constexpr const char* NAMES[] = {"write",        "register",    "unregister",   "begin",          "fetch",
                                 "finish",       "abandon",     "backup",       "crash",          "lose-tracking",
                                 "resize",       "block-size",  "damage",       "power-cut",      "stop-driver",
                                 "start-driver", "stop-volume", "stop-volumes", "start-tracking", "mark-all",
                                 "unmark",       "monitor",     "ask",          "asks-again",     "register-again"};
static_assert(std::size(NAMES) == static_cast<std::size_t>(Do::Count));

constexpr const char* FAULTS[] = {"",           "fail",       "fail-on",      "not-there",  "fail-of",
                                  "fail-of-on", "fail-after", "short",        "no-memory",  "no-memory-on",
                                  "die-before", "die-after",  "die-in-write", "short-read", "empties"};
static_assert(std::size(FAULTS) == static_cast<std::size_t>(Fault::How::Count));

template <class E>
bool Named(std::string_view text, const char* const* names, std::size_t count, E& value)
{
    const auto found = std::find(names, names + count, text);
    value = static_cast<E>(found - names);
    return found != names + count;
}

bool ParseFaults(const std::vector<std::string_view>& words, std::size_t from, Operation& operation)
{
    for (std::size_t at = from; at < words.size(); at += 3) {
        Fault fault;
        if (at + 3 > words.size() || words[at].front() != '!' ||
            !Named(words[at].substr(1), FAULTS, std::size(FAULTS), fault.how) ||
            !ParseNumber(words[at + 1], fault.nth) || !ParseNumber(words[at + 2], fault.error))
            return false;
        operation.faults.push_back(fault);
    }
    return true;
}

// A volume of no grains or no blocks is none.
bool HasSize(const Operation& operation)
{
    return (operation.what != Do::Resize && operation.what != Do::SetBlockSize) || operation.a != 0;
}

bool ParseMachine(const std::vector<std::string_view>& words, History& history)
{
    for (std::size_t at = 1; at < words.size(); ++at) {
        const auto parts = Split(words[at], ':');
        VolumeShape shape;
        if (parts.size() != 2 || !ParseNumber(parts[0], shape.grains) || !ParseNumber(parts[1], shape.blockSize) ||
            shape.grains == 0 || shape.blockSize == 0)
            return false;
        history.volumes.push_back(shape);
    }
    return !history.volumes.empty();
}

} // namespace

std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(separator), text.size());
        if (end != 0)
            parts.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

bool ParseNumber(std::string_view text, std::uint32_t& number)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

std::string ToText(const Operation& operation)
{
    std::string text = NAMES[static_cast<std::size_t>(operation.what)];
    for (const std::uint32_t number : {operation.application, operation.volume, operation.a, operation.b})
        text += " " + std::to_string(number);
    for (const Fault& fault : operation.faults)
        text += std::string(" !") + FAULTS[static_cast<std::size_t>(fault.how)] + " " + std::to_string(fault.nth) +
                " " + std::to_string(fault.error);
    return text;
}

std::string ToText(const History& history)
{
    std::string text = "machine";
    for (const VolumeShape& shape : history.volumes)
        text += " " + std::to_string(shape.grains) + ":" + std::to_string(shape.blockSize);
    for (const Operation& operation : history.operations)
        text += "; " + ToText(operation);
    return text;
}

std::optional<std::vector<Operation>> ParseOperations(std::string_view text, std::uint32_t applications,
                                                      std::size_t volumes)
{
    std::vector<Operation> operations;
    for (const std::string_view item : Split(text, ';')) {
        const auto words = Split(item, ' ');
        if (words.empty())
            continue;
        Operation operation;
        if (!Named(words[0], NAMES, std::size(NAMES), operation.what))
            return std::nullopt;
        std::uint32_t* const fields[] = {&operation.application, &operation.volume, &operation.a, &operation.b};
        std::size_t at = 1;
        for (; at < words.size() && at <= 4 && words[at].front() != '!'; ++at) {
            if (!ParseNumber(words[at], *fields[at - 1]))
                return std::nullopt;
        }
        if (!ParseFaults(words, at, operation) || operation.application >= applications ||
            operation.volume >= volumes || !HasSize(operation))
            return std::nullopt;
        operations.push_back(operation);
    }
    return operations;
}

std::optional<History> ParseHistory(std::string_view text, std::uint32_t applications)
{
    const std::size_t end = std::min(text.find(';'), text.size());
    const auto words = Split(text.substr(0, end), ' ');
    History history;
    if (words.empty() || words[0] != "machine" || !ParseMachine(words, history))
        return std::nullopt;
    auto operations = ParseOperations(text.substr(end), applications, history.volumes.size());
    if (!operations)
        return std::nullopt;
    history.operations = std::move(*operations);
    return history;
}

} // namespace vtproof
