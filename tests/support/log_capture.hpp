// Captures every message the library logs: the test programs define the
// logging library's interface, so libtovi's calls land here.
#pragma once

#include <string>
#include <vector>

namespace tovi::test {

struct LogRecord {
    unsigned module;
    unsigned level;
    std::string file;
    unsigned line;
    std::string func;
    std::string text;
    bool raw;  // from vrlog_original / vrlog_vraw
};

class LogCapture {
public:
    // Starts from an empty record; every level is enabled.
    LogCapture();
    ~LogCapture();

    std::vector<LogRecord> records() const;
    // The message texts, in order.
    std::vector<std::string> texts() const;
    // Texts of one level.
    std::vector<std::string> texts(unsigned level) const;
    bool contains(const std::string &text) const;
    size_t count(const std::string &text) const;
    void clear();
    // Messages above this level are refused by vrlog_level_check.
    void set_threshold(unsigned level);
    // Calls of the logging library's control functions, as
    // "name(arg,arg,...)", in order.
    std::vector<std::string> control_calls() const;
    // Called with the text of every raw line before it is stored (outside
    // the capture's lock; it may block to hold a signal handler in place).
    static void set_raw_hook(void (*hook)(const char *text));
};

}  // namespace tovi::test
