// Captures the plug-in's log lines (through the host log stand-in) for the
// life of the object.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

struct LogLine {
    int priority;  // 3 debug, 6 error
    std::string tag;
    std::string text;
    std::thread::id thread;  // the thread that logged the line
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    std::vector<std::string> texts() const;   // every line's text
    std::vector<std::string> errors() const;  // texts of priority-6 lines
    std::vector<std::string> debugs() const;  // texts of priority-3 lines
    // Number of lines whose text equals `text` exactly.
    size_t count(const std::string& text) const;
    // Number of lines whose text contains `part`.
    size_t countContaining(const std::string& part) const;
    // Lines whose text starts with `prefix`.
    std::vector<std::string> startingWith(const std::string& prefix) const;
    void clear();

private:
    static void sink(int prio, const char* tag, const char* text, void* context);
    mutable std::mutex mMutex;
    std::vector<LogLine> mLines;
};

// Strips the "<file>::<line> -- " prefix of a located line ("" when the line
// has no such prefix).
std::string afterLocation(const std::string& line);

}  // namespace zeltest
