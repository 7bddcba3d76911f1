#include "output.h"

#include <algorithm>
#include <cstdio>

namespace ctl {

namespace {

/// Names come from the directory; a terminal obeys some of what could stand in them.
std::string Harmless(std::string text) {
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\n') || byte == 0x7f) {
            c = '?';
        }
    }
    return text;
}

/// What comes from elsewhere must not pass for a line of ours.
std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return Harmless(std::move(text));
}

bool WriteLine(std::FILE* stream, const std::string& line) {
    const bool written = std::fputs((line + "\n").c_str(), stream) >= 0;
    return std::fflush(stream) == 0 && written;
}

/// Names are bytes to us; those that are no UTF-8 must not keep the rest from being told.
std::string Dump(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

ExitCode WriteAnswer(const std::string& answer) {
    if (WriteLine(stdout, answer)) {
        return ExitCode::Done;
    }
    Notify("cannot write the answer to standard output");
    return ExitCode::Failed;
}

void Complain(const Failure& failure) {
    Notify(failure.text);
    if (!failure.cause.empty()) {
        WriteLine(stderr, OneLine("cause: " + failure.cause));
    }
    if (!failure.hint.empty()) {
        WriteLine(stderr, Harmless("hint: " + failure.hint));
    }
}

} // namespace

void Table::Add(const std::string& label, const std::string& value) {
    rows_.emplace_back(label, value);
}

std::string Table::Text() const {
    std::size_t width = 0;
    for (const auto& [label, value] : rows_) {
        width = std::max(width, label.size());
    }
    std::string text;
    for (const auto& [label, value] : rows_) {
        text +=
            (text.empty() ? "" : "\n") + label + std::string(width + 2 - label.size(), ' ') + value;
    }
    return text;
}

Json ToJson(const Failure& failure) {
    Json json = {{"text", failure.text}, {"code", failure.code}};
    if (!failure.cause.empty()) {
        json["cause"] = failure.cause;
    }
    return json;
}

ExitCode Tell(const Answer& answer, bool asJson) {
    ExitCode written = ExitCode::Done;
    if (asJson || !answer.text.empty()) { // an empty list has no line
        written = WriteAnswer(asJson ? Dump(answer.json) : Harmless(answer.text));
    }
    if (!answer.failure) {
        return written == ExitCode::Done ? answer.exitCode : written;
    }
    Complain(*answer.failure);
    return answer.failure->exitCode;
}

ExitCode Tell(const Failure& failure, bool asJson) {
    Complain(failure);
    if (asJson && failure.exitCode != ExitCode::WrongUsage) {
        WriteAnswer(Dump({{"error", ToJson(failure)}}));
    }
    return failure.exitCode;
}

bool TellLine(const std::string& line) {
    return WriteLine(stdout, OneLine(line));
}

void Notify(const std::string& line) {
    WriteLine(stderr, Harmless("tesauthctl: " + line));
}

} // namespace ctl
