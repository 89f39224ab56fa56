// Random words for every bus and memory command, run in-process against a
// private simulator: numbers of every shape, the words the commands look
// for, junk bytes, empty and very long words, and very long lists. Each
// argument vector is allocated to its exact size, word by word, so under
// AddressSanitizer a read past the last word or past a word's end stops the
// run. No command may crash, and every exit status is 0 or 1.
//
// The commands run in a child process, so the driver connection and the
// tool's output belong to it alone; the child names each case on a pipe
// before running it, so a crash is reported with the words that caused it.
#include "talvexctl.h"
#include "tool_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Handler = int (*)(int, char *[]);

// A command with the words it looks for at each position (none: numbers)
// and the word counts its forms take, so that random vectors get past the
// first checks as often as they fail them.
struct Command {
    const char *name;
    Handler handler;
    std::vector<std::vector<const char *>> words;   // per position after the command word
    std::vector<size_t> counts;                     // typical numbers of words after it
};

const std::vector<const char *> kDevices{"gyro", "accel", "compass", "talvex", "pressure", "corvel", "prox"};
const std::vector<const char *> kForms{"read", "write", "readreg", "writereg"};

const Command kCommands[] = {
    {"readreg", TalvexCmdReadReg, {kDevices}, {3}},
    {"writereg", TalvexCmdWriteReg, {kDevices}, {3, 4, 10, 18, 19}},
    {"bb", TalvexCmdBB, {}, {1}},
    {"cma", TalvexCmdCma, {}, {0, 1, 16, 256, 257}},
    {"spi", TalvexCmdSpi, {{"read", "write"}}, {3, 4, 6, 125, 126, 127, 256, 257}},
    {"i2c", TalvexCmdI2C, {kForms}, {3, 4, 5, 6, 19, 20, 21}},
    {"mem", TalvexCmdMem, {{"read", "write"}}, {3, 4, 6, 19, 20, 21}},
    {"gpio", TalvexCmdGpio, {{"read", "write"}}, {0, 1, 2, 3}},
    {"pmu", TalvexCmdPmu, {}, {1}},
    {"get", TalvexCmdGet, {}, {2}},
    {"set", TalvexCmdSet, {}, {3}},
    {"uart",
     TalvexCmdUart,
     {{"ping", "pingreply", "cmreply", "raw"}, {"ap", "bb", "isp"}, {"--preamble", "--retry"}},
     {2, 3, 4, 5, 6, 101, 102, 103}},
};

class WordMaker {
public:
    explicit WordMaker(uint32_t seed) : rng_(seed) {}

    std::vector<std::string> words(const Command &c) {
        std::vector<std::string> v{c.name};
        size_t n = pick(2) ? c.counts[pick(c.counts.size())] : pick(12) == 0 ? 90 + pick(300) : pick(8);
        for (size_t i = 0; i < n; ++i)
            v.push_back(i < c.words.size() && pick(5) < 3 ? c.words[i][pick(c.words[i].size())] : word());
        return v;
    }

private:
    std::string word() {
        switch (pick(10)) {
        case 0: return "";
        case 1: return std::to_string(static_cast<int64_t>(rng_()) - (int64_t{1} << 31));       // decimal, signed
        case 2: return hex_digits(1 + pick(3));                                                 // a byte or so
        case 3: return (pick(2) ? "0x" : "-0x") + hex_digits(1 + pick(20));                     // up to very wide
        case 4: return std::string(1 + pick(30), "0123456789"[pick(10)]);                       // long runs of digits
        case 5: return junk(1 + pick(12));
        case 6: return junk(1000 + pick(4000));                                                 // very long
        default: return std::to_string(pick(300));                                              // small numbers
        }
    }
    size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
    std::string hex_digits(size_t n) {
        std::string s;
        for (size_t i = 0; i < n; ++i) s += "0123456789abcdefABCDEF"[pick(22)];
        return s;
    }
    std::string junk(size_t n) {
        std::string s;
        for (size_t i = 0; i < n; ++i) s += static_cast<char>(1 + pick(255));   // any byte but NUL
        return s;
    }
    std::mt19937 rng_;
};

// An argument vector owned word by word, each allocation exactly as large as
// its contents, and no terminating null pointer.
class ExactArgv {
public:
    explicit ExactArgv(const std::vector<std::string> &words) : argc_(static_cast<int>(words.size())) {
        argv_ = std::make_unique<char *[]>(words.size());
        for (size_t i = 0; i < words.size(); ++i) {
            storage_.push_back(std::make_unique<char[]>(words[i].size() + 1));
            std::memcpy(storage_.back().get(), words[i].c_str(), words[i].size() + 1);
            argv_[i] = storage_.back().get();
        }
    }
    int argc() const { return argc_; }
    char **argv() { return argv_.get(); }

private:
    int argc_;
    std::unique_ptr<char *[]> argv_;
    std::vector<std::unique_ptr<char[]>> storage_;
};

// The words, quoted, with bytes outside printable ASCII escaped and long words by their size.
std::string describe(const std::vector<std::string> &words) {
    std::string s;
    for (const auto &w : words) {
        s += s.empty() ? "\"" : " \"";
        if (w.size() > 40) s.append("<").append(std::to_string(w.size())).append(" bytes>");
        for (unsigned char c : w.size() > 40 ? std::string() : w) {
            char buf[8];
            std::snprintf(buf, sizeof buf, c >= 0x20 && c < 0x7f && c != '"' && c != '\\' ? "%c" : "\\x%02x", c);
            s += buf;
        }
        s += '"';
    }
    return s + "\n";
}

void write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// The child: runs every case, naming each on `report` first. Standard error
// goes to `err_path`, emptied before each case, so that after a crash it
// holds that case's diagnostics and the sanitizer's report. Exit 0 when all
// ended with 0 or 1; 3 after the first other status.
[[noreturn]] void run_cases(int report, const std::string &err_path, uint32_t seed, size_t per_command) {
    int null = open("/dev/null", O_WRONLY);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(null, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    WordMaker maker(seed);
    for (size_t round = 0; round < per_command; ++round) {
        for (const Command &command : kCommands) {
            std::vector<std::string> words = maker.words(command);
            write_all(report, describe(words));
            if (ftruncate(STDERR_FILENO, 0) != 0 || lseek(STDERR_FILENO, 0, SEEK_SET) != 0) _exit(4);
            ExactArgv args(words);
            int status = command.handler(args.argc(), args.argv());
            std::fflush(stdout);
            if (status != 0 && status != 1) {
                write_all(report, "exit status " + std::to_string(status) + "\n");
                _exit(3);
            }
        }
    }
    _exit(0);
}

TEST(BusFuzz, RandomWordsNeverCrashAndExitWithZeroOrOne) {
    talvex::test::Simulator sim;
    // A fixed seed keeps the run (and the methods it reaches) the same from
    // one run to the next; TALVEX_BUS_FUZZ_SEED picks another.
    const char *chosen = std::getenv("TALVEX_BUS_FUZZ_SEED");
    const uint32_t seed = chosen && *chosen ? static_cast<uint32_t>(std::strtoul(chosen, nullptr, 0)) : 20261121u;
    const size_t per_command = 250;

    const std::string err_path = sim.dir() + "/fuzz-stderr";
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        setenv("TALVEX_SIM_SOCKET", sim.socket().c_str(), 1);
        run_cases(fds[1], err_path, seed, per_command);
    }
    close(fds[1]);
    auto started = std::chrono::steady_clock::now();
    std::string log;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) log.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    auto cases = talvex::test::lines(log);
    std::string last = cases.empty() ? "(none)" : cases.back(), last_err;
    if (FILE *f = std::fopen(err_path.c_str(), "r")) {
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0 && last_err.size() < (64u << 10);)
            last_err.append(buf, n);
        std::fclose(f);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "seed " << seed << ": "
        << (WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                                : "exit " + std::to_string(WEXITSTATUS(status)))
        << " after " << cases.size() << " cases; last: " << last << "\nits standard error:\n" << last_err;
    EXPECT_EQ(cases.size(), per_command * std::size(kCommands)) << "seed " << seed << "; last: " << last;
    // Enough of them got past the checks to reach the driver, on most of its methods.
    auto calls = talvex::test::trace_calls(sim.trace());
    std::set<long> selectors;
    for (const auto &c : calls) selectors.insert(c.selector);
    EXPECT_GE(calls.size(), cases.size() / 5) << "seed " << seed;
    EXPECT_GE(selectors.size(), 13u) << "seed " << seed;
    // The simulator took every request without trouble.
    EXPECT_EQ(sim.stop(), 0) << sim.log();
    std::printf("%zu cases, %zu driver calls on %zu methods, in %.2f s (seed %u)\n", cases.size(), calls.size(),
                selectors.size(), seconds, seed);
}

}  // namespace
