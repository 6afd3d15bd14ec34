// The one rule for written files: an abandoned or interrupted write leaves
// the old file and nothing else; two writers of one path end with one whole file
// or a refusal. (That an output never reaches an input or another output by
// any name, the tool's bad-input table shows end to end.)
#include "files/files.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace korvanel::test {
namespace {

std::string fresh_dir(const std::string& name)
{
    std::string dir = testing::TempDir() + name + std::to_string(getpid());
    std::filesystem::remove_all(dir);
    return std::filesystem::create_directory(dir) ? dir : "";
}
std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
std::set<std::string> names_in(const std::string& dir)
{
    std::set<std::string> names;
    for (auto& entry : std::filesystem::directory_iterator(dir)) {
        names.insert(entry.path().filename());
    }
    return names;
}

// Killed while it writes, a run leaves nothing behind.
TEST(Files, ASignalDuringAWriteRemovesTheTemporary)
{
    std::string d = fresh_dir("files_signal_");
    pid_t child = fork();
    if (child == 0) {
        files::OutputFile file;
        bool opened = !file.open(d + "/run.vcd", {false, "--force", {}});
        file.write("$version korvanel-sim $end\n");
        kill(getpid(), opened ? SIGTERM : SIGKILL);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_TRUE(names_in(d).empty());
}

// Two runs writing one path: without leave to replace, the second is refused
// and the first's file stays whole; with it, the last to finish is the file.
// An abandoned write leaves the file as it was, and files named like
// temporary files (the old fixed name among them) are never touched.
TEST(Files, TwoWritersOfOnePathEndWithOneWholeFileOrARefusal)
{
    std::string d = fresh_dir("files_race_");
    std::set<std::string> theirs = {"w.vcd.partial", ".w.vcd.1-0-000000.tmp", "w.vcd"};
    for (auto& name : theirs) {
        std::ofstream(d + "/" + name) << "mine";
    }
    std::filesystem::remove(d + "/w.vcd");
    for (bool replace : {false, true}) {
        files::OutputFile first, second, abandoned;
        files::OutputRule rule{replace, "--force", {}};
        ASSERT_FALSE(first.open(d + "/w.vcd", rule) || second.open(d + "/w.vcd", rule));
        first.write(std::string(100000, 'a'));
        second.write(std::string(100000, 'b'));
        EXPECT_FALSE(first.commit());
        EXPECT_EQ(second.commit().value_or(""),
                  replace ? "" : d + "/w.vcd: a file appeared there while the run wrote it; --force replaces it");
        ASSERT_FALSE(abandoned.open(d + "/w.vcd", {true, "--force", {}}));
        abandoned.write("half a dump");
    }
    EXPECT_EQ(slurp(d + "/w.vcd"), std::string(100000, 'b'));
    EXPECT_EQ(names_in(d), theirs);
    EXPECT_EQ(slurp(d + "/w.vcd.partial") + slurp(d + "/.w.vcd.1-0-000000.tmp"), "minemine");
}

}  // namespace
}  // namespace korvanel::test
