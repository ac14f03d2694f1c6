// The settings store stand-in on real files in a temporary directory.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/zelstorageclient.h"
#include "tests/support/process.h"

namespace
{

bool parses_as_object(const std::string &text)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject();
}

class StoreTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/netmgr-store-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        file_ = dir_ + "/settings.json";
        setenv("NETMGR_STORE", file_.c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string dir_, file_;
    std::string type_ = "netmgr:type", last_ = "netmgr:last_wifi";
};

} // namespace

TEST_F(StoreTest, ValuesKeepTheirTypesAndKeysAreIndependent)
{
    Json::Value out;
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0) << "a missing file holds no keys";
    EXPECT_NE(ZL_Storage_SetItem(type_, Json::Value(1)), 0);
    EXPECT_NE(ZL_Storage_SetItem(last_, Json::Value("")), 0);
    EXPECT_NE(ZL_Storage_SetItem(type_, Json::Value(2)), 0);

    ASSERT_NE(ZL_Storage_GetItem(type_, &out), 0);
    EXPECT_TRUE(out.isInt());
    EXPECT_EQ(out.asInt(), 2);
    ASSERT_NE(ZL_Storage_GetItem(last_, &out), 0) << "the empty string is a value";
    EXPECT_TRUE(out.isString());

    EXPECT_NE(ZL_Storage_RemoveItem(type_), 0);
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    EXPECT_NE(ZL_Storage_GetItem(last_, &out), 0) << "other keys survive a removal";

    // Saving the value already stored leaves the file as it is; a different
    // value of the same key replaces it.
    struct stat first, again;
    ASSERT_EQ(stat(file_.c_str(), &first), 0);
    EXPECT_NE(ZL_Storage_SetItem(last_, Json::Value("")), 0);
    ASSERT_EQ(stat(file_.c_str(), &again), 0);
    EXPECT_EQ(first.st_ino, again.st_ino);
    EXPECT_NE(ZL_Storage_SetItem(last_, Json::Value("x")), 0);
    ASSERT_EQ(stat(file_.c_str(), &again), 0);
    EXPECT_NE(first.st_ino, again.st_ino);

    // A directory in the store's place cannot be read, so it is not replaced.
    std::filesystem::remove(file_);
    std::filesystem::create_directory(file_);
    EXPECT_EQ(ZL_Storage_SetItem(type_, Json::Value(1)), 0);
    EXPECT_TRUE(std::filesystem::is_directory(file_));
}

TEST_F(StoreTest, WritesReplaceTheFileAtomically)
{
    ASSERT_NE(ZL_Storage_SetItem(type_, Json::Value(0)), 0);
    // Held open so that its inode cannot be reused by a later file.
    int original = open(file_.c_str(), O_RDONLY);
    struct stat before, after;
    ASSERT_EQ(fstat(original, &before), 0);

    // However reads interleave with writes, a reader never sees half a store.
    std::atomic<bool> done{false};
    std::atomic<int> bad_reads{0};
    std::thread reader([&] {
        while (!done)
            bad_reads += !parses_as_object(read_file(file_));
    });
    std::string big(64 * 1024, 'x');
    for (int i = 0; i < 200; i++)
        ZL_Storage_SetItem(last_, Json::Value(big + std::to_string(i)));
    done = true;
    reader.join();
    EXPECT_EQ(bad_reads, 0);

    ASSERT_EQ(stat(file_.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino) << "replaced by rename, not rewritten in place";
    close(original);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), {}), 1)
        << "no temporary file left behind";
}

TEST_F(StoreTest, CorruptFileReadsEmptyIsReportedOnceAndMovedAsideOnWrite)
{
    const std::string garbage = "{\"netmgr:type\": 1,,,";
    std::ofstream(file_) << garbage;
    testing::internal::CaptureStderr();
    Json::Value out;
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    EXPECT_EQ(ZL_Storage_GetItem(last_, &out), 0);
    EXPECT_TRUE(std::filesystem::exists(file_)) << "reads leave the file alone";
    EXPECT_NE(ZL_Storage_SetItem(last_, Json::Value("/p")), 0);
    std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_NE(messages.find(file_), std::string::npos) << messages;
    EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 1) << messages;
    EXPECT_EQ(read_file(file_ + ".corrupt"), garbage);
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    ASSERT_NE(ZL_Storage_GetItem(last_, &out), 0);
    EXPECT_EQ(out.asString(), "/p");
}

TEST_F(StoreTest, ConcurrentWritersLoseNoKey)
{
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; t++) {
        writers.emplace_back([t] {
            for (int i = 0; i < 25; i++) {
                std::string key = "k" + std::to_string(t * 100 + i);
                ZL_Storage_SetItem(key, Json::Value(i));
            }
        });
    }
    for (auto &w : writers)
        w.join();
    for (int t = 0; t < 4; t++) {
        for (int i = 0; i < 25; i++) {
            std::string key = "k" + std::to_string(t * 100 + i);
            Json::Value out;
            ASSERT_NE(ZL_Storage_GetItem(key, &out), 0) << key;
            EXPECT_EQ(out.asInt(), i);
        }
    }
}

TEST_F(StoreTest, HostileFilesReadAsNoKeysWithoutAbortOrBlock)
{
    Json::Value out;
    testing::internal::CaptureStderr();
    // Nested far deeper than any settings object: no keys, no stack overflow.
    std::ofstream(file_) << std::string(100000, '[') << std::string(100000, ']');
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    std::ofstream(file_) << "{\"netmgr:type\": 1, \"pad\": \"" << std::string(2 << 20, 'x')
                         << "\"}";
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0) << "an oversized file holds no keys";
    testing::internal::GetCapturedStderr();

    // Neither a FIFO nor a device is opened: a reader would wait for a writer
    // for ever, or read without end.
    std::filesystem::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    EXPECT_EQ(ZL_Storage_SetItem(type_, Json::Value(1)), 0);
    std::filesystem::remove(file_);
    std::filesystem::create_symlink("/dev/zero", file_);
    EXPECT_EQ(ZL_Storage_GetItem(type_, &out), 0);
    EXPECT_EQ(ZL_Storage_RemoveItem(type_), 0);
}

TEST_F(StoreTest, WritersKilledAtAnyInstantLeaveOldOrNewAndOneTemporaryAtMost)
{
    ASSERT_NE(ZL_Storage_SetItem(type_, Json::Value(0)), 0);
    std::string big(256 * 1024, 'x');
    int last_written = 0;
    for (int round = 1; round <= 30; round++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int i = round * 1000;; i++) {
                ZL_Storage_SetItem(last_, Json::Value(big));
                ZL_Storage_SetItem(type_, Json::Value(i));
            }
        }
        // Kill it somewhere inside a write: after a varying amount of work.
        usleep(1000 + (round * 7919) % 20000);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);

        std::string text = read_file(file_);
        ASSERT_TRUE(parses_as_object(text)) << "round " << round;
        Json::Value out;
        ASSERT_NE(ZL_Storage_GetItem(type_, &out), 0);
        int value = out.asInt();
        EXPECT_TRUE(value == last_written ||
                    (value >= round * 1000 && value < round * 1000 + 1000000))
            << value;
        last_written = value;
        EXPECT_LE(std::distance(std::filesystem::directory_iterator(dir_), {}), 2)
            << "the store and at most one temporary file";
    }
    ASSERT_NE(ZL_Storage_SetItem(type_, Json::Value(1)), 0);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), {}), 1)
        << "the next write leaves no temporary file";
}
