// The one rule for written files: an output never reaches a file the run
// reads or another output, whatever it is called; a failed or interrupted
// write leaves the old file and nothing else; two writers of one path end
// with one whole file or a refusal.
#include "tools/files.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace korvanel::test {
namespace {

using tool::OutputFile;

std::string fresh_dir(const std::string& name)
{
    std::string dir = testing::TempDir() + name + std::to_string(getpid());
    EXPECT_EQ(system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()), 0);
    return dir;
}
std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
std::set<std::string> names_in(const std::string& dir)
{
    std::set<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") {
            names.insert(e->d_name);
        }
    }
    if (d != nullptr) {
        closedir(d);
    }
    return names;
}

TEST(Files, AnOutputNeverReachesAnInputOrAnotherOutputByAnyName)
{
    std::string d = fresh_dir("files_names_");
    std::ofstream(d + "/in.jsonc") << "input";
    ASSERT_EQ(symlink("in.jsonc", (d + "/link.svg").c_str()), 0);
    ASSERT_EQ(link((d + "/in.jsonc").c_str(), (d + "/hard.bin").c_str()), 0);
    tool::OutputRule force{true, "--force", {d + "/in.jsonc"}};
    for (const char* output : {"/link.svg", "/./in.jsonc", "/hard.bin"}) {
        auto problem = tool::write_output(d + output, "output", force);
        ASSERT_TRUE(problem) << output;
        EXPECT_NE(problem->find("a file this run reads"), std::string::npos) << *problem;
    }
    EXPECT_TRUE(tool::same_file(d + "/p.svg", d + "/../" + d.substr(d.rfind('/') + 1) + "/p.svg"));
    EXPECT_FALSE(tool::same_file(d + "/p.svg", d + "/q.svg"));
    EXPECT_EQ(slurp(d + "/in.jsonc"), "input");
    EXPECT_EQ(names_in(d), (std::set<std::string>{"in.jsonc", "link.svg", "hard.bin"}));
}

// A failed write and an abandoned one leave the old file as it was, a file
// named like a temporary file untouched, and no temporary file.
TEST(Files, AFailedWriteLeavesTheOldFileAndNoTemporary)
{
    std::string d = fresh_dir("files_failed_");
    std::ofstream(d + "/out.vcd") << "old";
    std::ofstream(d + "/out.vcd.partial") << "mine";
    std::ofstream(d + "/.out.vcd.1-0-000000.tmp") << "mine too";
    {
        OutputFile abandoned;
        ASSERT_FALSE(abandoned.open(d + "/out.vcd", {true, "--force", {}}));
        abandoned.write("half a dump");
    }
    EXPECT_EQ(slurp(d + "/out.vcd"), "old");
    EXPECT_EQ(slurp(d + "/out.vcd.partial") + slurp(d + "/.out.vcd.1-0-000000.tmp"), "minemine too");
    EXPECT_EQ(names_in(d).size(), 3u);
    EXPECT_TRUE(tool::write_output(d + "/none/out.vcd", "x", {true, "--force", {}}));
    EXPECT_EQ(names_in(d).size(), 3u);
}

// Killed while it writes, a run leaves nothing behind.
TEST(Files, ASignalDuringAWriteRemovesTheTemporary)
{
    std::string d = fresh_dir("files_signal_");
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction now {};
        if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN) {
            continue;  // ignored on purpose by whoever started the tests: it stays ignored
        }
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t child = fork();
        if (child == 0) {
            OutputFile file;
            bool opened = !file.open(d + "/run.vcd", {false, "--force", {}});
            file.write("$version korvanel-sim $end\n");
            (void)!write(ready[1], &opened, 1);
            for (;;) {
                pause();
            }
        }
        bool opened = false;
        ASSERT_EQ(read(ready[0], &opened, 1), 1);
        EXPECT_TRUE(opened);
        EXPECT_EQ(names_in(d).size(), 1u);  // the temporary file
        kill(child, signal);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
        EXPECT_TRUE(names_in(d).empty()) << signal;
        close(ready[0]);
        close(ready[1]);
    }
}

// Two runs writing one path: without leave to replace, the second is refused
// and the first's file stays whole; with it, the last to finish is the file.
TEST(Files, TwoWritersOfOnePathEndWithOneWholeFileOrARefusal)
{
    std::string d = fresh_dir("files_race_");
    for (bool replace : {false, true}) {
        OutputFile first, second;
        tool::OutputRule rule{replace, "--force", {}};
        ASSERT_FALSE(first.open(d + "/w.vcd", rule));
        ASSERT_FALSE(second.open(d + "/w.vcd", rule));
        first.write(std::string(100000, 'a'));
        second.write(std::string(100000, 'b'));
        EXPECT_FALSE(first.commit());
        auto refused = second.commit();
        EXPECT_EQ(bool(refused), !replace);
        if (refused) {
            EXPECT_NE(refused->find("w.vcd: a file appeared there while the run wrote it; --force replaces it"),
                      std::string::npos)
                << *refused;
        }
        EXPECT_EQ(slurp(d + "/w.vcd"), std::string(100000, replace ? 'b' : 'a'));
        EXPECT_EQ(names_in(d), std::set<std::string>{"w.vcd"});
        unlink((d + "/w.vcd").c_str());
    }
}

}  // namespace
}  // namespace korvanel::test
