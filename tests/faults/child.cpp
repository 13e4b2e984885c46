#include "child.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavro_test {

namespace {

constexpr std::size_t boardSize = 1U << 18U;

void append(std::string& text, const std::string& field) {
    text += std::to_string(field.size()) + ":" + field;
}

std::string cut(std::string& text) {
    const std::size_t colon = text.find(':');
    const std::size_t length = std::stoul(text.substr(0, colon));
    std::string field = text.substr(colon + 1, length);
    text.erase(0, colon + 1 + length);
    return field;
}

void append(std::string& text, const std::vector<std::string>& list) {
    append(text, std::to_string(list.size()));
    for (const std::string& field : list) {
        append(text, field);
    }
}

std::vector<std::string> cutList(std::string& text) {
    std::vector<std::string> list(std::stoul(cut(text)));
    for (std::string& field : list) {
        field = cut(text);
    }
    return list;
}

/// A refusal has an error of the guard's, which is told apart by its sign.
void append(std::string& text, const std::vector<TavroFailure>& list) {
    append(text, std::to_string(list.size()));
    for (const TavroFailure& failure : list) {
        const bool bOfSystem = failure.Error.category() == std::generic_category();
        const int error = bOfSystem ? failure.Error.value() : -failure.Error.value();
        append(text, {std::to_string(static_cast<int>(failure.Kind)), std::to_string(error),
                      failure.Path, failure.Other});
    }
}

std::vector<TavroFailure> cutFailures(std::string& text) {
    std::vector<TavroFailure> list(std::stoul(cut(text)));
    for (TavroFailure& failure : list) {
        const std::vector<std::string> fields = cutList(text);
        failure = TavroFail(static_cast<TavroFailureKind>(std::stoi(fields[0])),
                            std::stoi(fields[1]), fields[2], fields[3]);
    }
    return list;
}

} // namespace

Board::Board() {
    void* memory =
        mmap(nullptr, boardSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("mmap");
    }
    m_notes = static_cast<Notes*>(memory);
    m_text = static_cast<char*>(memory) + sizeof(Notes);
    clear();
}

Board::~Board() {
    munmap(m_notes, boardSize);
}

void Board::clear() const {
    *m_notes = Notes();
}

void Board::put(const Outcome& outcome) const {
    std::string text;
    append(text, std::to_string(outcome.Ended));
    append(text, outcome.Message);
    append(text, outcome.Text);
    append(text, outcome.Failures);
    append(text, outcome.RollBack);
    append(text, outcome.Left);
    append(text, outcome.InBoth);
    for (const TavroTrashEntry& entry : outcome.List) {
        append(text, entry.OriginalPath);
        append(text, entry.TrashPath);
        append(text, entry.InfoPath);
        append(text, entry.bDirectory ? "1" : "0");
    }
    if (text.size() > boardSize - sizeof(Notes)) {
        std::abort();
    }
    std::memcpy(m_text, text.data(), text.size());
    m_notes->Length = text.size();
    m_notes->bReturned = true;
}

Outcome Board::outcome() const {
    std::string text(m_text, m_notes->Length);
    Outcome outcome;
    outcome.Ended = static_cast<Outcome::Ending>(std::stoi(cut(text)));
    outcome.Message = cut(text);
    outcome.Text = cut(text);
    outcome.Failures = cutFailures(text);
    outcome.RollBack = cutFailures(text);
    outcome.Left = cutList(text);
    outcome.InBoth = cutList(text);
    while (!text.empty()) {
        TavroTrashEntry entry;
        entry.OriginalPath = cut(text);
        entry.TrashPath = cut(text);
        entry.InfoPath = cut(text);
        entry.bDirectory = cut(text) == "1";
        outcome.List.push_back(entry);
    }
    return outcome;
}

pid_t startChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        int status = 0;
        try {
            body();
        } catch (const std::exception& error) {
            std::printf("exception in a child: %s\n", error.what());
            std::fflush(nullptr);
            status = 1;
        }
        _exit(status);
    }
    return child;
}

int waitForEnd(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        throw std::runtime_error("waitpid");
    }
    return status;
}

} // namespace tavro_test
