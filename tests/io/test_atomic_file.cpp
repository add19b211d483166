// Atomic output files: nothing at the destination until Commit, no temporary file left behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <string>
#include <thread>
#include <vector>

#include "io/atomic_file.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::FileExists;
using testing::ReadText;
using testing::TemporaryDirectory;
using testing::WriteText;

/// `bytes` bytes of varied text (so that compression has something to do, without being
/// trivial).
std::string SampleData(std::size_t bytes) {
    std::string data;
    data.reserve(bytes);
    unsigned int state = 12345u;
    while (data.size() < bytes) {
        state = state * 1103515245u + 12345u;
        data +=
            "record " + std::to_string(data.size()) + "\t" + std::to_string(state % 1000) + "\n";
    }
    data.resize(bytes);
    return data;
}

bool IsFifo(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

bool IsSymlink(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool IsRegularFile(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string LinkContents(const std::string& path) {
    char buffer[4096];
    const ssize_t length = ::readlink(path.c_str(), buffer, sizeof(buffer));
    return length < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(length));
}

/// The decompressed contents of the gzip file `path` (read with zlib's own reader).
std::string ReadGzip(const std::string& path) {
    gzFile file = ::gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        return "<cannot open>";
    }
    std::string contents;
    char buffer[65536];
    int got = 0;
    while ((got = ::gzread(file, buffer, sizeof(buffer))) > 0) {
        contents.append(buffer, static_cast<std::size_t>(got));
    }
    const bool failed = got < 0;
    ::gzclose(file);
    return failed ? "<read error>" : contents;
}

/// The gzip stream `compressed`, decompressed in memory (empty on error).
std::string Gunzip(const std::string& compressed) {
    z_stream stream{};
    if (::inflateInit2(&stream, 15 + 16) != Z_OK) {
        return {};
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    stream.avail_in = static_cast<uInt>(compressed.size());
    std::string output;
    char buffer[65536];
    int status = Z_OK;
    do {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        status = ::inflate(&stream, Z_NO_FLUSH);
        output.append(buffer, sizeof(buffer) - stream.avail_out);
    } while (status == Z_OK);
    ::inflateEnd(&stream);
    return status == Z_STREAM_END ? output : std::string();
}

/// Reads a FIFO in a thread: everything until the writer closes it, or only `limit` bytes
/// before closing it early. The FIFO is also held by a path descriptor, so that a reader still
/// waiting for a writer that never comes (a writer that replaced the FIFO instead of writing to
/// it) can be released instead of hanging the test.
class FifoReader {
public:
    explicit FifoReader(const std::string& path, std::size_t limit = std::string::npos)
        : anchor_(::open(path.c_str(), O_PATH | O_CLOEXEC)), thread_([this, path, limit] {
              const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
              if (descriptor < 0) {
                  return;
              }
              char buffer[4096];
              while (data_.size() < limit) {
                  const std::size_t want = std::min(sizeof(buffer), limit - data_.size());
                  const ssize_t got = ::read(descriptor, buffer, want);
                  if (got <= 0) {
                      break;
                  }
                  data_.append(buffer, static_cast<std::size_t>(got));
              }
              ::close(descriptor);
          }) {}
    ~FifoReader() { Join(); }
    FifoReader(const FifoReader&) = delete;
    FifoReader& operator=(const FifoReader&) = delete;

    /// What was read, once the writer is done.
    const std::string& Data() {
        Join();
        return data_;
    }

private:
    void Join() {
        if (anchor_ >= 0) {
            // Opening the FIFO for writing without waiting succeeds only while the reader is
            // there; closing it again adds nothing to the stream, and a reader that never got
            // a writer sees the end of it.
            const std::string self = "/proc/self/fd/" + std::to_string(anchor_);
            const int release = ::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (release >= 0) {
                ::close(release);
            }
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        if (anchor_ >= 0) {
            ::close(anchor_);
            anchor_ = -1;
        }
    }

    int anchor_;
    std::string data_;
    std::thread thread_;
};

/// Restores the default action of SIGPIPE for the lifetime of the object (the one a library
/// user's process has unless it changed it), and the previous action afterwards.
class DefaultSigpipe {
public:
    DefaultSigpipe() {
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGPIPE, &action, &previous_);
    }
    ~DefaultSigpipe() { ::sigaction(SIGPIPE, &previous_, nullptr); }
    DefaultSigpipe(const DefaultSigpipe&) = delete;
    DefaultSigpipe& operator=(const DefaultSigpipe&) = delete;

private:
    struct sigaction previous_ {};
};

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

TEST(AtomicFile, DirectoryAtTheDestinationIsAnError) {
    TemporaryDirectory directory;
    const std::string path = directory.File("out");
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    AtomicFile file(path);
    EXPECT_FALSE(file.Ok());
    EXPECT_NE(file.Error().find("Is a directory"), std::string::npos) << file.Error();
    EXPECT_EQ(directory.Entries().size(), 1u);
}

// ---------------------------------------------------------------------------------------------
// Special files are written through, never replaced

TEST(AtomicFile, FifoReceivesTheExactBytesAndStaysAFifo) {
    DefaultSigpipe defaultSigpipe;
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const std::string data = SampleData(1500 * 1000);  // far more than a pipe holds
    FifoReader reader(path);
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    EXPECT_TRUE(file.WritesThrough());
    EXPECT_TRUE(file.TemporaryPath().empty());
    EXPECT_FALSE(file.Compressed());
    for (std::size_t begin = 0; begin < data.size(); begin += 7919) {
        ASSERT_TRUE(file.Append(std::string_view(data).substr(begin, 7919))) << file.Error();
    }
    ASSERT_TRUE(file.Commit()) << file.Error();
    EXPECT_EQ(reader.Data().size(), data.size());
    EXPECT_TRUE(reader.Data() == data);
    EXPECT_TRUE(IsFifo(path));
    EXPECT_EQ(directory.Entries().size(), 1u);
}

TEST(AtomicFile, FifoWhoseReaderLeavesEarlyIsAWriteErrorNotACrash) {
    // The default action of SIGPIPE would kill the test here if the write let it through.
    DefaultSigpipe defaultSigpipe;
    TemporaryDirectory directory;
    const std::string path = directory.File("scores.tsv");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    FifoReader reader(path, 100);
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    const std::string block = SampleData(64 * 1024);
    bool appended = true;
    for (int i = 0; i < 256 && appended; ++i) {  // 16 MB: the reader is long gone before
        appended = file.Append(block);
    }
    EXPECT_EQ(reader.Data().size(), 100u);
    EXPECT_FALSE(file.Commit());
    EXPECT_NE(file.Error().find(path), std::string::npos) << file.Error();
    EXPECT_NE(file.Error().find("Broken pipe"), std::string::npos) << file.Error();
    EXPECT_FALSE(file.Ok());
    EXPECT_TRUE(IsFifo(path));
    EXPECT_EQ(directory.Entries().size(), 1u);
    // No SIGPIPE was left pending for the thread to receive later.
    sigset_t pending;
    ASSERT_EQ(::sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(AtomicFile, CompressedFifoCarriesAGzipStream) {
    DefaultSigpipe defaultSigpipe;
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf.gz");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const std::string data = SampleData(300 * 1000);
    FifoReader reader(path);
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    EXPECT_TRUE(file.WritesThrough());
    EXPECT_TRUE(file.Compressed());
    ASSERT_TRUE(file.Append(data));
    ASSERT_TRUE(file.Commit()) << file.Error();
    EXPECT_TRUE(Gunzip(reader.Data()) == data);
    EXPECT_TRUE(IsFifo(path));
}

/// The handler a tool installs for a request to stop.
extern "C" void StopWaiting(int) {
    StopWaitingForReaders();
}

TEST(AtomicFile, WaitingForAReaderOfAFifoEndsWhenAskedToStop) {
    // In a child process: giving up is for the whole process, for good.
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(channel[0]);
        struct sigaction action {};
        action.sa_handler = StopWaiting;
        action.sa_flags = SA_RESTART;  // as the tool installs it: open() alone would not return
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGUSR1, &action, nullptr);
        if (::write(channel[1], "r", 1) != 1) {
            ::_exit(2);
        }
        AtomicFile file(path);  // no reader ever comes
        const bool expected = !file.Ok() && file.Error().find(path) != std::string::npos &&
                              file.Error().find("reader") != std::string::npos;
        ::_exit(expected ? 0 : 1);
    }
    ::close(channel[1]);
    char ready = 0;
    ASSERT_EQ(::read(channel[0], &ready, 1), 1);
    ::close(channel[0]);
    ::usleep(200 * 1000);  // the child is waiting by now
    ASSERT_EQ(::kill(child, SIGUSR1), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(IsFifo(path));
    EXPECT_EQ(directory.Entries().size(), 1u);
}

// ---------------------------------------------------------------------------------------------
// Symbolic links: the file they point to is replaced, the links stay

TEST(AtomicFile, SymbolicLinkStaysAndItsTargetIsReplaced) {
    TemporaryDirectory directory;
    ASSERT_EQ(::mkdir(directory.File("results").c_str(), 0755), 0);
    const std::string target = directory.File("results/scores.tsv");
    const std::string link = directory.File("scores.tsv");
    WriteText(target, "old\n");
    ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
    ASSERT_EQ(::symlink("results/scores.tsv", link.c_str()), 0);  // relative to the link

    AtomicFile file(link);
    ASSERT_TRUE(file.Ok()) << file.Error();
    EXPECT_EQ(file.TargetPath(), target);
    EXPECT_EQ(file.TemporaryPath().rfind(target + ".tmp-", 0), 0u) << file.TemporaryPath();
    ASSERT_TRUE(file.Append("new\n"));
    EXPECT_EQ(ReadText(target), "old\n");
    ASSERT_TRUE(file.Commit()) << file.Error();

    EXPECT_TRUE(IsSymlink(link));
    EXPECT_EQ(LinkContents(link), "results/scores.tsv");
    EXPECT_TRUE(IsRegularFile(target));
    EXPECT_EQ(ReadText(target), "new\n");
    struct stat status;
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(directory.Entries().size(), 2u);
}

TEST(AtomicFile, ChainOfSymbolicLinksReplacesTheLastTarget) {
    TemporaryDirectory directory;
    const std::string target = directory.File("real.sdf");
    const std::string middle = directory.File("middle.sdf");
    const std::string first = directory.File("first.sdf");
    WriteText(target, "old\n");
    ASSERT_EQ(::symlink(target.c_str(), middle.c_str()), 0);  // absolute
    ASSERT_EQ(::symlink("middle.sdf", first.c_str()), 0);     // relative
    ASSERT_TRUE(WriteFileAtomically(first, "new\n", nullptr));
    EXPECT_TRUE(IsSymlink(first));
    EXPECT_TRUE(IsSymlink(middle));
    EXPECT_EQ(LinkContents(first), "middle.sdf");
    EXPECT_EQ(LinkContents(middle), target);
    EXPECT_TRUE(IsRegularFile(target));
    EXPECT_EQ(ReadText(target), "new\n");
    EXPECT_EQ(directory.Entries().size(), 3u);
}

TEST(AtomicFile, DanglingSymbolicLinkGetsItsTargetCreated) {
    TemporaryDirectory directory;
    const std::string link = directory.File("hits.sdf");
    const std::string target = directory.File("created.sdf");
    ASSERT_EQ(::symlink("created.sdf", link.c_str()), 0);
    ASSERT_FALSE(FileExists(link));
    {
        // Uncommitted: the link stays dangling and nothing else appears.
        AtomicFile file(link);
        ASSERT_TRUE(file.Ok()) << file.Error();
        file.Append("half");
    }
    EXPECT_TRUE(IsSymlink(link));
    EXPECT_FALSE(FileExists(target));
    EXPECT_EQ(directory.Entries().size(), 1u);

    ASSERT_TRUE(WriteFileAtomically(link, "$$$$\n", nullptr));
    EXPECT_TRUE(IsSymlink(link));
    EXPECT_EQ(LinkContents(link), "created.sdf");
    EXPECT_TRUE(IsRegularFile(target));
    EXPECT_EQ(ReadText(link), "$$$$\n");
    EXPECT_EQ(directory.Entries().size(), 2u);
}

TEST(AtomicFile, LoopOfSymbolicLinksIsAnError) {
    TemporaryDirectory directory;
    const std::string a = directory.File("a.tsv");
    const std::string b = directory.File("b.tsv");
    ASSERT_EQ(::symlink("b.tsv", a.c_str()), 0);
    ASSERT_EQ(::symlink("a.tsv", b.c_str()), 0);
    std::string error;
    EXPECT_FALSE(WriteFileAtomically(a, "x", &error));
    EXPECT_NE(error.find(a), std::string::npos) << error;
    EXPECT_TRUE(IsSymlink(a));
    EXPECT_TRUE(IsSymlink(b));
    EXPECT_EQ(directory.Entries().size(), 2u);
}

// ---------------------------------------------------------------------------------------------
// Compression

TEST(AtomicFile, GzipDestinationIsCompressed) {
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf.gz");
    const std::string data = SampleData(700 * 1000);
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    EXPECT_TRUE(file.Compressed());
    for (std::size_t begin = 0; begin < data.size(); begin += 1000) {
        ASSERT_TRUE(file.Append(std::string_view(data).substr(begin, 1000)));
    }
    ASSERT_TRUE(file.Commit()) << file.Error();
    const std::string raw = ReadText(path);
    ASSERT_GE(raw.size(), 2u);
    EXPECT_EQ(static_cast<unsigned char>(raw[0]), 0x1fu);
    EXPECT_EQ(static_cast<unsigned char>(raw[1]), 0x8bu);
    EXPECT_LT(raw.size(), data.size() / 2);
    EXPECT_TRUE(ReadGzip(path) == data);
    EXPECT_EQ(directory.Entries().size(), 1u);
}

TEST(AtomicFile, GzipSuffixIsRecognisedInAnyCaseAndCanBeOverridden) {
    TemporaryDirectory directory;
    const std::string upper = directory.File("scores.TSV.GZ");
    ASSERT_TRUE(WriteFileAtomically(upper, "a\t1\n", nullptr));
    EXPECT_EQ(ReadText(upper).substr(0, 2), "\x1f\x8b");
    EXPECT_EQ(ReadGzip(upper), "a\t1\n");

    const std::string plain = directory.File("plain.gz");
    AtomicFile uncompressed(plain, AtomicFile::Compression::None);
    EXPECT_FALSE(uncompressed.Compressed());
    ASSERT_TRUE(uncompressed.Append("text"));
    ASSERT_TRUE(uncompressed.Commit());
    EXPECT_EQ(ReadText(plain), "text");

    const std::string forced = directory.File("forced.bin");
    AtomicFile compressed(forced, AtomicFile::Compression::Gzip);
    ASSERT_TRUE(compressed.Append("text"));
    ASSERT_TRUE(compressed.Commit());
    EXPECT_EQ(ReadGzip(forced), "text");

    // Nothing appended: a valid, empty gzip file.
    const std::string empty = directory.File("empty.sdf.gz");
    ASSERT_TRUE(WriteFileAtomically(empty, "", nullptr));
    EXPECT_EQ(ReadText(empty).substr(0, 2), "\x1f\x8b");
    EXPECT_EQ(ReadGzip(empty), "");
}

TEST(AtomicFile, GzipDestinationWrittenByNameIsCompressedOnCommit) {
    TemporaryDirectory directory;
    const std::string path = directory.File("library.h5.gz");
    const std::string data = SampleData(400 * 1000);
    AtomicFile file(path);
    ASSERT_TRUE(file.Ok()) << file.Error();
    WriteText(file.TemporaryPath(), data);  // as a library writing the file by its name does
    ASSERT_TRUE(file.Commit()) << file.Error();
    EXPECT_EQ(ReadText(path).substr(0, 2), "\x1f\x8b");
    EXPECT_TRUE(ReadGzip(path) == data);
    EXPECT_EQ(directory.Entries().size(), 1u);
}

TEST(AtomicFile, UncommittedGzipLeavesNothing) {
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf.gz");
    {
        AtomicFile file(path);
        ASSERT_TRUE(file.Append(SampleData(1000 * 1000)));
    }
    EXPECT_TRUE(directory.Entries().empty());
}

// ---------------------------------------------------------------------------------------------
// The table of temporary files, for signal handlers

TEST(AtomicFile, RemoveTemporaryFilesNowRemovesEveryOpenTemporary) {
    TemporaryDirectory directory;
    AtomicFile first(directory.File("hits.sdf"));
    AtomicFile second(directory.File("scores.tsv.gz"));
    ASSERT_TRUE(first.Ok());
    ASSERT_TRUE(second.Ok());
    ASSERT_TRUE(first.Append("data"));
    ASSERT_TRUE(second.Append("data"));
    const std::string firstTemporary = first.TemporaryPath();
    const std::string secondTemporary = second.TemporaryPath();
    ASSERT_TRUE(FileExists(firstTemporary));
    ASSERT_TRUE(FileExists(secondTemporary));

    RemoveTemporaryFilesNow();

    EXPECT_FALSE(FileExists(firstTemporary));
    EXPECT_FALSE(FileExists(secondTemporary));
    EXPECT_TRUE(directory.Entries().empty());
    // Their files are gone: committing them fails and creates nothing.
    EXPECT_FALSE(first.Commit());
    EXPECT_FALSE(second.Commit());
    EXPECT_TRUE(directory.Entries().empty());
}

TEST(AtomicFile, CommittedDiscardedAndMovedFilesLeaveTheTable) {
    TemporaryDirectory directory;
    AtomicFile committed(directory.File("committed.tsv"));
    AtomicFile discarded(directory.File("discarded.tsv"));
    AtomicFile moved(directory.File("moved.tsv"));
    const std::string committedTemporary = committed.TemporaryPath();
    const std::string discardedTemporary = discarded.TemporaryPath();
    const std::string movedTemporary = moved.TemporaryPath();
    ASSERT_TRUE(committed.Append("1\n"));
    ASSERT_TRUE(committed.Commit());
    discarded.Discard();
    {
        AtomicFile destination(std::move(moved));
        ASSERT_TRUE(destination.Commit());
    }
    // Files of the user's that now happen to have those names must survive.
    WriteText(committedTemporary, "user 1");
    WriteText(discardedTemporary, "user 2");
    WriteText(movedTemporary, "user 3");

    RemoveTemporaryFilesNow();

    EXPECT_EQ(ReadText(committedTemporary), "user 1");
    EXPECT_EQ(ReadText(discardedTemporary), "user 2");
    EXPECT_EQ(ReadText(movedTemporary), "user 3");
    EXPECT_EQ(ReadText(directory.File("committed.tsv")), "1\n");
    EXPECT_EQ(directory.Entries().size(), 5u);
}

TEST(AtomicFile, ManyOpenFilesAreAllRemoved) {
    TemporaryDirectory directory;
    std::vector<AtomicFile> files;
    for (int i = 0; i < 100; ++i) {
        files.emplace_back(directory.File("out" + std::to_string(i) + ".sdf"));
        ASSERT_TRUE(files.back().Ok()) << files.back().Error();
    }
    EXPECT_EQ(directory.Entries().size(), 100u);
    RemoveTemporaryFilesNow();
    EXPECT_TRUE(directory.Entries().empty());
}

/// The handler a tool installs for a second interruption: remove the temporary files, stop.
extern "C" void RemoveAndExit(int) {
    RemoveTemporaryFilesNow();
    ::_exit(130);
}

TEST(AtomicFile, SignalHandlerInAChildProcessRemovesItsTemporaryFiles) {
    TemporaryDirectory directory;
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The child: installs the handler, opens two outputs, reports their temporary files
        // and waits to be stopped.
        ::close(channel[0]);
        struct sigaction action {};
        action.sa_handler = RemoveAndExit;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGUSR1, &action, nullptr);
        AtomicFile hits(directory.File("hits.sdf"));
        AtomicFile scores(directory.File("scores.tsv.gz"));
        hits.Append("half a record");
        const std::string report = hits.TemporaryPath() + "\n" + scores.TemporaryPath() + "\n";
        if (!hits.Ok() || !scores.Ok() ||
            ::write(channel[1], report.data(), report.size()) !=
                static_cast<ssize_t>(report.size())) {
            ::_exit(1);
        }
        ::close(channel[1]);
        for (;;) {
            ::pause();
        }
    }
    ::close(channel[1]);
    std::string report;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::read(channel[0], buffer, sizeof(buffer))) > 0) {
        report.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(channel[0]);
    const std::size_t newline = report.find('\n');
    ASSERT_NE(newline, std::string::npos) << report;
    const std::string hitsTemporary = report.substr(0, newline);
    const std::string scoresTemporary = report.substr(newline + 1, report.size() - newline - 2);
    EXPECT_TRUE(FileExists(hitsTemporary));
    EXPECT_TRUE(FileExists(scoresTemporary));

    ASSERT_EQ(::kill(child, SIGUSR1), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_FALSE(FileExists(hitsTemporary));
    EXPECT_FALSE(FileExists(scoresTemporary));
    EXPECT_TRUE(directory.Entries().empty());
}

}  // namespace
}  // namespace hermite::io
