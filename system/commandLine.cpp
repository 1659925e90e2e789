// Splitting and quoting command lines.

#include "system/commandLine.h"

namespace Tessera {
namespace System {

namespace {
bool IsWindowsBlank(char c) { return c == ' ' || c == '\t'; }
} // namespace

void SplitWindowsCommandLine(const std::string& line, std::vector<std::string>& words) {
    words.clear();
    std::size_t i = 0;
    const std::size_t n = line.size();
    while (i < n && IsWindowsBlank(line[i])) {
        ++i;
    }
    if (i == n) {
        return;
    }
    // The program name: no escapes, a leading quote runs to the next quote.
    std::string word;
    if (line[i] == '"') {
        ++i;
        while (i < n && line[i] != '"') {
            word += line[i++];
        }
        if (i < n) {
            ++i;
        }
    } else {
        while (i < n && !IsWindowsBlank(line[i])) {
            word += line[i++];
        }
    }
    words.push_back(word);
    while (i < n && IsWindowsBlank(line[i])) {
        ++i;
    }
    if (i == n) {
        return;
    }

    // The arguments. `quotes` counts the quotes of the current run: 1 inside
    // a quoted part; every third consecutive quote is a literal one.
    word.clear();
    std::size_t backslashes = 0;
    int quotes = 0;
    while (i < n) {
        const char c = line[i];
        if (IsWindowsBlank(c) && quotes == 0) {
            words.push_back(word);
            word.clear();
            backslashes = 0;
            while (i < n && IsWindowsBlank(line[i])) {
                ++i;
            }
            if (i == n) {
                return;
            }
            continue;
        }
        if (c == '\\') {
            word += c;
            ++backslashes;
            ++i;
            continue;
        }
        if (c == '"') {
            if (backslashes % 2 == 0) {
                word.resize(word.size() - backslashes / 2);
                ++quotes;
            } else {
                word.resize(word.size() - backslashes / 2 - 1);
                word += '"';
            }
            ++i;
            backslashes = 0;
            while (i < n && line[i] == '"') {
                if (++quotes == 3) {
                    word += '"';
                    quotes = 0;
                }
                ++i;
            }
            if (quotes == 2) {
                quotes = 0;
            }
            continue;
        }
        word += c;
        backslashes = 0;
        ++i;
    }
    words.push_back(word);
}

bool SplitShellWords(const std::string& line, std::vector<std::string>& words, std::string& error) {
    words.clear();
    std::string word;
    bool inWord = false;
    const std::size_t n = line.size();
    for (std::size_t i = 0; i < n; ++i) {
        const char c = line[i];
        switch (c) {
        case ' ':
        case '\t':
        case '\n':
            if (inWord) {
                words.push_back(word);
                word.clear();
                inWord = false;
            }
            break;
        case '\\':
            if (i + 1 == n) {
                error = "trailing backslash";
                return false;
            }
            inWord = true;
            if (line[++i] != '\n') { // a backslash and a new line join lines
                word += line[i];
            }
            break;
        case '\'': {
            const std::size_t end = line.find('\'', i + 1);
            if (end == std::string::npos) {
                error = "unterminated single quote";
                return false;
            }
            word.append(line, i + 1, end - i - 1);
            inWord = true;
            i = end;
            break;
        }
        case '"': {
            inWord = true;
            ++i;
            for (;; ++i) {
                if (i == n) {
                    error = "unterminated double quote";
                    return false;
                }
                const char d = line[i];
                if (d == '"') {
                    break;
                }
                if (d == '\\' && i + 1 < n) {
                    const char e = line[i + 1];
                    if (e == '$' || e == '`' || e == '"' || e == '\\') {
                        word += e;
                        ++i;
                        continue;
                    }
                    if (e == '\n') {
                        ++i;
                        continue;
                    }
                }
                word += d;
            }
            break;
        }
        default:
            word += c;
            inWord = true;
            break;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return true;
}

void AppendWindowsArgument(const std::string& word, std::string& line) {
    if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos) {
        line += word;
        return;
    }
    line += '"';
    std::size_t backslashes = 0;
    for (char c : word) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        if (c == '"') {
            line.append(backslashes * 2 + 1, '\\');
        } else {
            line.append(backslashes, '\\');
        }
        backslashes = 0;
        line += c;
    }
    line.append(backslashes * 2, '\\');
    line += '"';
}

std::string JoinWindowsCommandLine(const std::vector<std::string>& argv) {
    std::string line;
    if (argv.empty()) return line;
    const std::string& program = argv.front();
    line = program.find_first_of(" \t") != std::string::npos ? "\"" + program + "\"" : program;
    for (std::size_t i = 1; i < argv.size(); ++i) {
        line += ' ';
        AppendWindowsArgument(argv[i], line);
    }
    return line;
}

} // namespace System
} // namespace Tessera
