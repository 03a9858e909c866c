#include "support/capture.h"

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

std::string capture_stdout(const std::function<void()>& body) {
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    FILE* file = tmpfile();
    if (saved < 0 || file == nullptr) {
        throw std::runtime_error("capture_stdout: can't redirect standard output");
    }
    dup2(fileno(file), STDOUT_FILENO);

    body();

    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);

    std::string text;
    rewind(file);
    char buffer[4096];
    for (size_t n = 0; (n = fread(buffer, 1, sizeof buffer, file)) > 0;) {
        text.append(buffer, n);
    }
    fclose(file);
    return text;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end == std::string::npos ? end : end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}
