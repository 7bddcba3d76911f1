#include "output.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace ctl {

namespace {

/// How many bytes at a place of a UTF-8 text are a character that a terminal obeys; 0 if none is.
std::size_t ControlAt(const std::string& text, std::size_t place) {
    const auto byteAt = [&](std::size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
    };
    const unsigned byte = byteAt(place);
    if (byte < 0x20 || byte == 0x7f) {
        return 1;
    }
    const unsigned next = byteAt(place + 1);
    return byte == 0xc2 && next >= 0x80 && next < 0xa0 ? 2 : 0; // those above ASCII
}

/// The text with each such character as `write` has it, given its number.
template <typename Write>
std::string WithoutControls(const std::string& text, Write write) {
    std::string told;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = ControlAt(text, i);
        if (length == 0) {
            told += text[i++];
            continue;
        }
        told += write(static_cast<unsigned char>(text[i + length - 1]));
        i += length;
    }
    return told;
}

/// Names come from the directory; a terminal obeys some of what could stand in them.
std::string Harmless(const std::string& text) {
    return WithoutControls(text, [](unsigned char number) { return number == '\n' ? '\n' : '?'; });
}

bool Write(std::FILE* stream, const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stream) == text.size();
    return std::fflush(stream) == 0 && written;
}

bool WriteLine(std::FILE* stream, const std::string& line) {
    return Write(stream, line + "\n");
}

/// Names are bytes to us; those that are no UTF-8 must not keep the rest from being told. JSON
/// itself escapes only some of what a terminal obeys.
std::string Dump(const Json& json) {
    const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace);
    return WithoutControls(text, [](unsigned char number) {
        char escaped[7] = "\n"; // between the values
        if (number != '\n') {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(number));
        }
        return std::string(escaped);
    });
}

ExitCode WriteText(const std::string& text) {
    if (Write(stdout, text)) {
        return ExitCode::Done;
    }
    Notify("cannot write the answer to standard output");
    return ExitCode::Failed;
}

ExitCode WriteAnswer(const std::string& answer) {
    return WriteText(answer + "\n");
}

/// A file's tabs and line ends stay.
std::string ForTerminal(const std::string& text) {
    return WithoutControls(text, [](unsigned char number) {
        return number == '\n' || number == '\t' ? static_cast<char>(number) : '?';
    });
}

void Complain(const Failure& failure) {
    Notify(failure.text);
    if (!failure.cause.empty()) {
        WriteLine(stderr, OneLine("cause: " + failure.cause));
    }
    if (!failure.hint.empty()) {
        WriteLine(stderr, OneLine("hint: " + failure.hint));
    }
}

} // namespace

std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return Harmless(text);
}

void Table::Add(const std::string& label, const std::string& value) {
    rows_.emplace_back(label, OneLine(value));
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

Json TextOrNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json ToJson(const Failure& failure) {
    Json json = {{"text", failure.text}, {"code", failure.code}};
    if (!failure.cause.empty()) {
        json["cause"] = failure.cause;
    }
    if (!failure.hint.empty()) {
        json["hint"] = failure.hint;
    }
    return json;
}

ExitCode Tell(const Answer& answer, bool asJson) {
    ExitCode written = ExitCode::Done;
    if (answer.isFileText && !asJson) {
        written = TellFileText(answer.text) ? ExitCode::Done : ExitCode::Failed;
    } else if (asJson || !answer.text.empty()) { // an empty list has no line
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
    return WriteAnswer(OneLine(line)) == ExitCode::Done;
}

bool TellFileText(const std::string& text) {
    return WriteText(isatty(STDOUT_FILENO) != 0 ? ForTerminal(text) : text) == ExitCode::Done;
}

void Notify(const std::string& line) {
    WriteLine(stderr, OneLine("tesauthctl: " + line));
}

} // namespace ctl
