// Runs the end-to-end cases of tests/cases/*.case, each as one test with its
// own private simulator; README.md ("Building and testing") describes the format.
#include "harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace talvex::test;

struct Command {
    int line = 0;
    std::vector<std::string> argv;   // argv[0] is talvexctl or talvexsim
    bool merged = false;             // standard error goes to standard output
    std::string out, err;            // expected, whole
    int status = 0;
    bool check_trace = false;
    std::vector<std::string> trace;
};

struct Case {
    std::string file;
    int line = 0;
    std::string title;
    std::vector<std::string> serve;
    std::vector<Command> commands;
};

// Shell-like words: blanks separate, quotes group, nothing else is special.
bool split_words(const std::string &text, std::vector<std::string> &words, std::string &why) {
    words.clear();
    std::string word;
    bool in_word = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '"' || c == '\'') {
            size_t end = text.find(c, i + 1);
            if (end == std::string::npos) {
                why = std::string("unclosed ") + c;
                return false;
            }
            word += text.substr(i + 1, end - i - 1);
            in_word = true;
            i = end;
        } else if (c == ' ' || c == '\t') {
            if (in_word) words.push_back(word);
            word.clear();
            in_word = false;
        } else {
            word += c;
            in_word = true;
        }
    }
    if (in_word) words.push_back(word);
    return true;
}

// Reads one case file; a line it cannot read is an error naming FILE:LINE.
std::vector<Case> read_cases(const std::filesystem::path &path, std::string &error) {
    std::vector<Case> cases;
    std::ifstream in(path);
    if (!in) {
        error = path.string() + ": cannot be read";
        return cases;
    }
    std::string name = path.filename().string(), text, why;
    auto fail = [&](int line, const std::string &what) {
        error = name + ":" + std::to_string(line) + ": " + what;
        return std::vector<Case>{};
    };
    int line = 0;
    while (std::getline(in, text)) {
        ++line;
        if (text.empty() || text[0] == '#') continue;
        if (text.rfind("=== ", 0) == 0) {
            Case c{name, line, text.substr(4), {}, {}};
            size_t serve = c.title.find(" [serve ");
            if (serve != std::string::npos && c.title.back() == ']') {
                if (!split_words(c.title.substr(serve + 8, c.title.size() - serve - 9), c.serve, why))
                    return fail(line, why);
                for (std::string &word : c.serve)
                    if (size_t at = word.find("${SOURCE}"); at != std::string::npos) word.replace(at, 9, TALVEX_SOURCE_DIR);
                c.title.resize(serve);
            }
            cases.push_back(std::move(c));
            continue;
        }
        if (cases.empty()) return fail(line, "a case starts with '=== TITLE'");
        auto &commands = cases.back().commands;
        if (text.rfind("$ ", 0) == 0) {
            Command command;
            command.line = line;
            if (!split_words(text.substr(2), command.argv, why)) return fail(line, why);
            if (command.argv.empty() || (command.argv[0] != "talvexctl" && command.argv[0] != "talvexsim"))
                return fail(line, "a command runs talvexctl or talvexsim");
            if (command.argv.back() == "2>&1") {
                if (command.argv[0] != "talvexctl") return fail(line, "2>&1 is for talvexctl");
                command.merged = true;
                command.argv.pop_back();
            }
            commands.push_back(std::move(command));
            continue;
        }
        if (commands.empty()) return fail(line, "'" + text + "' before the case's first command");
        Command &command = commands.back();
        if (text == "|" || text.rfind("| ", 0) == 0) {
            command.out += text.substr(std::min<size_t>(2, text.size())) + "\n";
        } else if (text == "!" || text.rfind("! ", 0) == 0) {
            command.err += text.substr(std::min<size_t>(2, text.size())) + "\n";
        } else if (text.rfind("exit ", 0) == 0) {
            char *end = nullptr;
            long status = std::strtol(text.c_str() + 5, &end, 10);
            if (*end || status < 0 || status > 255) return fail(line, "exit takes a status from 0 to 255");
            command.status = static_cast<int>(status);
        } else if (text == "trace -") {
            command.check_trace = true;
        } else if (text.rfind("trace ", 0) == 0) {
            command.check_trace = true;
            command.trace.push_back(text.substr(6));
        } else {
            return fail(line, "cannot read '" + text + "'");
        }
    }
    return cases;
}

// The line every talvexctl command that reaches the driver traces first.
const std::string kOpen = R"({"service":"ZantraTalvexProcessor","open":0,"result":0})";

// Text as case lines, for showing a difference in the case file's own terms.
std::string as_case_lines(const std::string &text, const char *mark) {
    std::string shown;
    for (const auto &l : lines(text)) shown += std::string(mark) + (l.empty() ? "" : " " + l) + "\n";
    return shown;
}

class CaseTest : public testing::Test {
public:
    explicit CaseTest(Case c, std::string unreadable = {}) : case_(std::move(c)), unreadable_(std::move(unreadable)) {}
    void TestBody() override {
        if (!unreadable_.empty()) FAIL() << unreadable_;
        Simulator sim(case_.serve);
        for (const Command &command : case_.commands) {
            std::string where = case_.file + ":" + std::to_string(command.line);
            std::vector<std::string> args(command.argv.begin() + 1, command.argv.end());
            if (command.check_trace) sim.trace(true);
            RunResult r;
            if (command.merged) {
                args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1", talvexctl_path()});
                r = run(args, sim.env());
                r.out = normalise(r.out);
            } else {
                r = command.argv[0] == "talvexctl" ? sim.tool(args) : sim.control(args);
            }
            static const std::regex handle("handle=0x[0-9a-f]+");
            r.out = std::regex_replace(r.out, handle, "handle=P");
            EXPECT_FALSE(r.timed_out) << where << ": the command did not finish";
            EXPECT_EQ(as_case_lines(r.out, "|"), as_case_lines(command.out, "|")) << where << ": standard output";
            EXPECT_EQ(as_case_lines(normalise(r.err), "!"), as_case_lines(command.err, "!"))
                << where << ": standard error";
            EXPECT_EQ(r.status, command.status) << where << ": exit status";
            if (command.check_trace) {
                std::string got, want;
                for (const auto &l : sim.trace()) got += "trace " + l + "\n";
                if (command.argv[0] == "talvexctl" && !command.trace.empty() &&
                    command.trace[0].find("\"open\":") == std::string::npos)
                    want = "trace " + kOpen + "\n";
                for (const auto &l : command.trace) want += "trace " + l + "\n";
                EXPECT_EQ(got, want) << where << ": trace";
            }
        }
        EXPECT_EQ(sim.stop(), 0) << case_.file << ":" << case_.line << ": the simulator did not stop cleanly:\n"
                                 << sim.log();
    }

private:
    Case case_;
    std::string unreadable_;   // why the case file could not be read
};

std::string test_name(const std::string &title) {
    std::string name;
    bool upper = true;
    for (char c : title) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            name += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
            upper = false;
        } else {
            upper = true;
        }
    }
    return name.empty() ? "Unnamed" : name;
}

// Every case of every file, registered before the tests run.
[[maybe_unused]] const bool registered = [] {
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(TALVEX_CASES_DIR))
        if (entry.path().extension() == ".case") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto &path : files) {
        std::string error;
        std::vector<Case> cases = read_cases(path, error);
        std::string suite = test_name(path.stem().string());
        if (!error.empty()) {
            testing::RegisterTest(suite.c_str(), "CaseFileReads", nullptr, nullptr, __FILE__, __LINE__,
                                  [error]() -> testing::Test * { return new CaseTest({}, error); });
            continue;
        }
        std::vector<std::string> seen;
        for (const Case &c : cases) {
            std::string name = test_name(c.title);
            if (std::count(seen.begin(), seen.end(), name)) name += "At" + std::to_string(c.line);
            seen.push_back(name);
            testing::RegisterTest(suite.c_str(), name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                  [c]() -> testing::Test * { return new CaseTest(c); });
        }
    }
    return true;
}();

}  // namespace
