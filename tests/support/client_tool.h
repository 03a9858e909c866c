// A program run by a test, with its output captured.
#ifndef TAVOR_TESTS_CLIENT_TOOL_H
#define TAVOR_TESTS_CLIENT_TOOL_H

#include <string>
#include <sys/types.h>
#include <vector>

struct Tool {
    // Starts the program; close_output closes its standard output first.
    explicit Tool(std::vector<std::string> arguments, bool close_output = false);
    ~Tool();
    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;

    // Reads on until the text has come on standard output, or on standard error. False when the program ended
    // or a generous limit passed without it.
    bool wait_out(const std::string& text);
    bool wait_err(const std::string& text);
    // Stops reading standard output, as a pager that was left.
    void close_out();
    void signal(int number) const;
    // Waits until this many bytes of standard output wait to be read, or until the program has ended, which
    // nobody's reading helps. False when a generous limit passed.
    bool wait_unread(size_t bytes) const;
    bool wait_gone() const;
    // Makes the pipe behind standard output so small that the first piece of output fills it.
    void shrink_out() const;
    // Waits until the program waits for something.
    bool wait_asleep() const;
    // Reads to the end of the output and waits for the end. Returns the exit status, 128 + n when signal n
    // ended it.
    int end();

    std::string out;
    std::string err;

private:
    bool read_some();
    bool wait_text(const std::string& where, const std::string& text);

    pid_t pid = -1;
    int out_end = -1;
    int err_end = -1;
};

#endif
