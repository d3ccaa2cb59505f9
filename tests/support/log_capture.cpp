#include "log_capture.h"

#include <android/log.h>

namespace zeltest {

LogCapture::LogCapture() {
    zel_log_set_sink(&LogCapture::sink, this);
}

LogCapture::~LogCapture() {
    zel_log_set_sink(nullptr, nullptr);
}

void LogCapture::sink(int prio, const char* tag, const char* text, void* context) {
    auto* self = static_cast<LogCapture*>(context);
    std::lock_guard<std::mutex> lock(self->mMutex);
    self->mLines.push_back({prio, tag ? tag : "", text ? text : "", std::this_thread::get_id()});
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mLines;
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> out;
    for (const auto& l : lines()) out.push_back(l.text);
    return out;
}

std::vector<std::string> LogCapture::errors() const {
    std::vector<std::string> out;
    for (const auto& l : lines())
        if (l.priority == ANDROID_LOG_ERROR) out.push_back(l.text);
    return out;
}

std::vector<std::string> LogCapture::debugs() const {
    std::vector<std::string> out;
    for (const auto& l : lines())
        if (l.priority == ANDROID_LOG_DEBUG) out.push_back(l.text);
    return out;
}

size_t LogCapture::count(const std::string& text) const {
    size_t n = 0;
    for (const auto& l : lines())
        if (l.text == text) ++n;
    return n;
}

size_t LogCapture::countContaining(const std::string& part) const {
    size_t n = 0;
    for (const auto& l : lines())
        if (l.text.find(part) != std::string::npos) ++n;
    return n;
}

std::vector<std::string> LogCapture::startingWith(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const auto& l : lines())
        if (l.text.compare(0, prefix.size(), prefix) == 0) out.push_back(l.text);
    return out;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
}

std::string afterLocation(const std::string& line) {
    const auto sep = line.find(" -- ");
    if (sep == std::string::npos || line.find("::") > sep) return "";
    return line.substr(sep + 4);
}

}  // namespace zeltest
