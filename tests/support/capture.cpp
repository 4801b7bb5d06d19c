// SPDX-License-Identifier: MIT
#include "tests/support/capture.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include <unistd.h>

std::string WithoutLineNumbers(const std::string& text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        result += text[i];
        size_t end = i + 1;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) {
            end++;
        }
        if (text[i] == '(' && end > i + 1 && text.compare(end, 2, ")]") == 0) {
            result += '#';
            i = end - 1;
        }
    }
    return result;
}

std::string Printed(const std::function<void()>& body)
{
    return WithoutLineNumbers(PrintedExactly(body));
}

std::string PrintedExactly(const std::function<void()>& body)
{
    std::fflush(stdout);
    FILE* file = std::tmpfile();
    const int terminal = dup(STDOUT_FILENO);
    if (file == nullptr || terminal < 0 || dup2(fileno(file), STDOUT_FILENO) < 0) {
        throw std::runtime_error("cannot capture standard output");
    }
    body();
    std::fflush(stdout);
    dup2(terminal, STDOUT_FILENO);
    close(terminal);

    std::string text;
    std::rewind(file);
    std::vector<char> buffer(4096);
    size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), file)) > 0) {
        text.append(buffer.data(), got);
    }
    std::fclose(file);
    return text;
}

int ErrnoAfter(int before, const std::function<void()>& body)
{
    FILE* full = std::fopen("/dev/full", "w");
    if (full == nullptr) {
        throw std::runtime_error("cannot open /dev/full");
    }
    std::setvbuf(full, nullptr, _IONBF, 0);
    FILE* kept = stdout;
    stdout = full;
    errno = before;
    body();
    const int after = errno;
    stdout = kept;
    std::fclose(full);
    return after;
}
