// The settings store stand-in on real files in a temporary directory.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/zelstorageclient.h"

namespace fs = std::filesystem;

namespace
{

std::string read_text(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_text(const std::string &path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
}

bool parse(const std::string &text, Json::Value *root)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), root, &errors);
}

// Sends this process's stderr to a file while it lives.
class StderrCapture
{
  public:
    explicit StderrCapture(const std::string &path)
    {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrCapture()
    {
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
    }

  private:
    int saved_;
};

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
    void TearDown() override { fs::remove_all(dir_); }

    std::vector<std::string> dir_entries() const
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(dir_))
            names.push_back(entry.path().filename().string());
        return names;
    }

    std::string dir_;
    std::string file_;
};

std::string k_type = "netmgr:type";
std::string k_last = "netmgr:last_wifi";
std::string k_ipv6 = "netmgr:ipv6_enable";

} // namespace

TEST_F(StoreTest, ValuesKeepTheirTypesAcrossWrites)
{
    Json::Value out;
    EXPECT_EQ(ZL_Storage_GetItem(k_type, &out), 0) << "a missing file holds no keys";

    EXPECT_NE(ZL_Storage_SetItem(k_type, Json::Value(1)), 0);
    EXPECT_NE(ZL_Storage_SetItem(k_last, Json::Value("/net/connman/service/wifi_1")), 0);
    EXPECT_NE(ZL_Storage_SetItem(k_ipv6, Json::Value(true)), 0);
    EXPECT_NE(ZL_Storage_SetItem(k_type, Json::Value(2)), 0); // overwrite

    ASSERT_NE(ZL_Storage_GetItem(k_type, &out), 0);
    EXPECT_TRUE(out.isInt());
    EXPECT_EQ(out.asInt(), 2);
    ASSERT_NE(ZL_Storage_GetItem(k_last, &out), 0);
    EXPECT_EQ(out.asString(), "/net/connman/service/wifi_1");
    ASSERT_NE(ZL_Storage_GetItem(k_ipv6, &out), 0);
    EXPECT_TRUE(out.isBool());
    EXPECT_TRUE(out.asBool());

    // The empty string is a value, not an absent key.
    EXPECT_NE(ZL_Storage_SetItem(k_last, Json::Value("")), 0);
    ASSERT_NE(ZL_Storage_GetItem(k_last, &out), 0);
    EXPECT_EQ(out.asString(), "");

    // The file is one JSON object whose members are the keys.
    Json::Value root;
    ASSERT_TRUE(parse(read_text(file_), &root));
    ASSERT_TRUE(root.isObject());
    EXPECT_EQ(root.size(), 3u);
    EXPECT_EQ(root["netmgr:type"].asInt(), 2);

    EXPECT_NE(ZL_Storage_RemoveItem(k_type), 0);
    EXPECT_EQ(ZL_Storage_GetItem(k_type, &out), 0);
    EXPECT_NE(ZL_Storage_GetItem(k_last, &out), 0) << "other keys survive a removal";
    EXPECT_NE(ZL_Storage_RemoveItem(k_type), 0) << "removing an absent key is fine";

    EXPECT_EQ(ZL_Storage_GetItem(k_type, nullptr), 0);
}

TEST_F(StoreTest, StoreIsCreatedInMissingDirectories)
{
    std::string nested = dir_ + "/a/b/settings.json";
    setenv("NETMGR_STORE", nested.c_str(), 1);
    ASSERT_NE(ZL_Storage_SetItem(k_type, Json::Value(1)), 0);
    Json::Value out;
    ASSERT_NE(ZL_Storage_GetItem(k_type, &out), 0);
    EXPECT_EQ(out.asInt(), 1);
}

TEST_F(StoreTest, WritesReplaceTheFileAtomically)
{
    ASSERT_NE(ZL_Storage_SetItem(k_type, Json::Value(0)), 0);
    struct stat before;
    ASSERT_EQ(stat(file_.c_str(), &before), 0);

    // A reader of the file never sees a half-written store, however the
    // writes interleave with its reads.
    std::atomic<bool> done{false};
    std::atomic<int> bad_reads{0};
    std::thread reader([&] {
        while (!done) {
            Json::Value root;
            if (!parse(read_text(file_), &root) || !root.isObject())
                bad_reads++;
        }
    });
    std::string big(64 * 1024, 'x');
    for (int i = 0; i < 200; i++)
        ZL_Storage_SetItem(k_last, Json::Value(big + std::to_string(i)));
    done = true;
    reader.join();
    EXPECT_EQ(bad_reads, 0);

    struct stat after;
    ASSERT_EQ(stat(file_.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino) << "the file is replaced, not rewritten in place";
    EXPECT_EQ(dir_entries(), std::vector<std::string>{"settings.json"}) << "no temporary left";
}

TEST_F(StoreTest, CorruptFileReadsEmptyIsReportedOnceAndMovedAside)
{
    write_text(file_, "{\"netmgr:type\": 1,,, garbage");
    std::string log = dir_ + "/stderr.txt";
    Json::Value out;
    {
        StderrCapture capture(log);
        EXPECT_EQ(ZL_Storage_GetItem(k_type, &out), 0);
        EXPECT_EQ(ZL_Storage_GetItem(k_last, &out), 0);
        EXPECT_NE(ZL_Storage_RemoveItem(k_type), 0);
        EXPECT_TRUE(fs::exists(file_)) << "reading and removing leave the file where it is";
        EXPECT_NE(ZL_Storage_SetItem(k_last, Json::Value("/p")), 0);
        EXPECT_EQ(ZL_Storage_GetItem(k_type, &out), 0);
    }
    std::string messages = read_text(log);
    size_t first = messages.find(file_);
    ASSERT_NE(first, std::string::npos) << messages;
    EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 1) << messages;

    EXPECT_EQ(read_text(file_ + ".corrupt"), "{\"netmgr:type\": 1,,, garbage");
    ASSERT_NE(ZL_Storage_GetItem(k_last, &out), 0);
    EXPECT_EQ(out.asString(), "/p");

    // A JSON text that is not an object is no store either.
    write_text(file_, "[1, 2]");
    {
        StderrCapture capture(log);
        EXPECT_EQ(ZL_Storage_GetItem(k_last, &out), 0);
    }
    EXPECT_NE(read_text(log).find(file_), std::string::npos) << "a new corrupt file is reported";
}

TEST_F(StoreTest, UnreadableStoreIsNeverOverwritten)
{
    // A directory in the store's place cannot be read as a file.
    ASSERT_TRUE(fs::create_directory(file_));
    Json::Value out;
    EXPECT_EQ(ZL_Storage_GetItem(k_type, &out), 0);
    EXPECT_EQ(ZL_Storage_SetItem(k_type, Json::Value(1)), 0);
    EXPECT_TRUE(fs::is_directory(file_));
}

TEST_F(StoreTest, ConcurrentWritersLoseNoKey)
{
    const int threads = 4;
    const int per_thread = 25;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; t++) {
        writers.emplace_back([t] {
            for (int i = 0; i < per_thread; i++) {
                std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
                ZL_Storage_SetItem(key, Json::Value(t * 1000 + i));
            }
        });
    }
    for (auto &w : writers)
        w.join();

    Json::Value root;
    ASSERT_TRUE(parse(read_text(file_), &root));
    EXPECT_EQ(root.size(), static_cast<unsigned>(threads * per_thread));
    for (int t = 0; t < threads; t++) {
        for (int i = 0; i < per_thread; i++) {
            std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
            Json::Value out;
            ASSERT_NE(ZL_Storage_GetItem(key, &out), 0) << key;
            EXPECT_EQ(out.asInt(), t * 1000 + i);
        }
    }
}
