// Atomic output files: nothing at the destination until Commit, no temporary file left behind.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "io/atomic_file.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::FileExists;
using testing::ReadText;
using testing::TemporaryDirectory;

TEST(AtomicFile, DestinationAppearsOnlyOnCommit) {
    TemporaryDirectory directory;
    const std::string path = directory.File("scores.tsv");
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    EXPECT_EQ(file.TemporaryPath().rfind(path + ".tmp-", 0), 0u);
    EXPECT_TRUE(file.Append("a\t1\n"));
    EXPECT_TRUE(file.Append("b\t2\n"));
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(FileExists(file.TemporaryPath()));
    ASSERT_TRUE(file.Commit()) << file.Error();
    EXPECT_EQ(ReadText(path), "a\t1\nb\t2\n");
    EXPECT_EQ(directory.Entries().size(), 1u);
}

TEST(AtomicFile, DestructionWithoutCommitLeavesNothing) {
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf");
    std::string temporary;
    {
        AtomicFile file(path);
        ASSERT_TRUE(file.Ok());
        temporary = file.TemporaryPath();
        file.Append("half a file");
        EXPECT_TRUE(FileExists(temporary));
    }
    EXPECT_FALSE(FileExists(temporary));
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(directory.Entries().empty());
}

TEST(AtomicFile, UncommittedRewriteKeepsThePreviousContents) {
    TemporaryDirectory directory;
    const std::string path = directory.File("map.json");
    ASSERT_TRUE(WriteFileAtomically(path, "{\"old\": 1}\n", nullptr));
    {
        AtomicFile file(path);
        file.Append("{\"new\"");
    }
    EXPECT_EQ(ReadText(path), "{\"old\": 1}\n");
}

TEST(AtomicFile, ReplacementKeepsTheModeOfTheReplacedFile) {
    TemporaryDirectory directory;
    const std::string path = directory.File("table.tsv");
    ASSERT_TRUE(WriteFileAtomically(path, "1\n", nullptr));
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    ASSERT_TRUE(WriteFileAtomically(path, "2\n", nullptr));
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(ReadText(path), "2\n");
}

TEST(AtomicFile, MissingDirectoryIsAnErrorNamingThePath) {
    TemporaryDirectory directory;
    const std::string path = directory.File("no-such-directory/out.tsv");
    std::string error;
    EXPECT_FALSE(WriteFileAtomically(path, "x", &error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    AtomicFile file(path);
    EXPECT_FALSE(file.Ok());
    EXPECT_FALSE(file.Append("x"));
    EXPECT_FALSE(file.Commit());
}

TEST(AtomicFile, MovedFileKeepsItsTemporary) {
    TemporaryDirectory directory;
    const std::string path = directory.File("moved.txt");
    AtomicFile first(path);
    first.Append("moved\n");
    AtomicFile second(std::move(first));
    EXPECT_TRUE(second.Ok());
    ASSERT_TRUE(second.Commit());
    EXPECT_EQ(ReadText(path), "moved\n");
}

}  // namespace
}  // namespace hermite::io
