// Settings store stand-in: one JSON object in a file, its members the keys.
//
// The file is $NETMGR_STORE, by default /var/lib/netmgr/settings.json. It is
// read afresh on every call (the device's store may be changed by other
// processes too) and every change replaces it atomically: a temporary file in
// the same directory is written, flushed with fsync and renamed over the old
// one, so that a power cut leaves either the old or the new settings. A
// mutex serialises the callers of this process (the library calls the store
// from the service thread and from the application's threads); a lock on the
// directory serialises writers of different processes, which share the one
// temporary name "<file>.tmp" (so an interrupted write leaves at most that
// file behind, reused by the next write).
//
// The file is outside input: anything but a regular file is not opened for
// reading (a FIFO would block), and a file too large or nested too deeply
// for a settings object reads as corrupt.
#include "platform/zelstorageclient.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <sstream>
#include <string>

namespace
{

const char kDefaultStorePath[] = "/var/lib/netmgr/settings.json";
// Three small keys live here; anything much larger is not a store we wrote.
const off_t kMaxStoreSize = 1024 * 1024;
// The settings are a flat object: this depth bounds the parser's recursion.
const int kMaxNesting = 64;

std::mutex store_mutex;
// The unparsable file already reported on stderr; it is reported once and
// moved aside before the next write. Guarded by store_mutex.
std::string reported_corrupt_path;

enum class LoadResult {
    ok,      // parsed, or missing (no keys)
    corrupt, // present but not a JSON object: reads as no keys
    failed,  // could not be read at all
};

std::string store_path()
{
    const char *path = getenv("NETMGR_STORE");
    return (path && *path) ? path : kDefaultStorePath;
}

std::string parent_dir(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

enum class ReadResult { ok, missing, failed, oversized };

ReadResult read_file(const std::string &path, std::string *content)
{
    // Checked before opening, so that opening never blocks (FIFO) nor
    // touches a device; checked again on the descriptor against a swap.
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return errno == ENOENT ? ReadResult::missing : ReadResult::failed;
    if (!S_ISREG(st.st_mode))
        return ReadResult::failed;
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? ReadResult::missing : ReadResult::failed;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return ReadResult::failed;
    }
    if (st.st_size > kMaxStoreSize) {
        close(fd);
        return ReadResult::oversized;
    }
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            close(fd);
            return ReadResult::failed;
        }
        if (n == 0)
            break;
        content->append(buf, static_cast<size_t>(n));
        // It may grow while we read.
        if (content->size() > static_cast<size_t>(kMaxStoreSize)) {
            close(fd);
            return ReadResult::oversized;
        }
    }
    close(fd);
    return ReadResult::ok;
}

bool parse_object(const std::string &content, Json::Value *root)
{
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMaxNesting;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    std::string errors;
    try {
        if (!reader->parse(content.data(), content.data() + content.size(), &parsed, &errors) ||
            !parsed.isObject())
            return false;
    } catch (const std::exception &) {
        // The reader throws past its nesting limit.
        return false;
    }
    *root = parsed;
    return true;
}

bool only_whitespace(const std::string &text)
{
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

LoadResult load(const std::string &path, Json::Value *root)
{
    *root = Json::Value(Json::objectValue);
    std::string content;
    ReadResult read = read_file(path, &content);
    if (read == ReadResult::missing)
        return LoadResult::ok;
    if (read == ReadResult::failed)
        return LoadResult::failed;
    // An empty file is what `touch` makes: no keys yet, nothing to report.
    if (read == ReadResult::ok && only_whitespace(content))
        return LoadResult::ok;
    if (read == ReadResult::ok && parse_object(content, root))
        return LoadResult::ok;
    if (reported_corrupt_path != path) {
        fprintf(stderr,
                "netmgr store: %s is not a JSON object; reading it as empty, it will be "
                "moved to %s.corrupt on the next write\n",
                path.c_str(), path.c_str());
        reported_corrupt_path = path;
    }
    return LoadResult::corrupt;
}

bool make_dirs(const std::string &dir)
{
    if (dir.empty() || dir == "/" || dir == ".")
        return true;
    struct stat st;
    if (stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode);
    if (!make_dirs(parent_dir(dir)))
        return false;
    return mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
}

bool write_all(int fd, const std::string &data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool replace_file(const std::string &path, const Json::Value &root)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::string text = Json::writeString(builder, root) + "\n";

    std::string dir = parent_dir(path);
    if (!make_dirs(dir))
        return false;
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0)
        return false;
    while (flock(dir_fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            close(dir_fd);
            return false;
        }
    }
    // Whatever an interrupted write left under the name goes first.
    std::string tmp = path + ".tmp";
    unlink(tmp.c_str());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool ok = fd >= 0;
    if (ok) {
        ok = write_all(fd, text) && fsync(fd) == 0;
        ok = (close(fd) == 0) && ok;
    }
    if (ok)
        ok = rename(tmp.c_str(), path.c_str()) == 0;
    if (ok)
        fsync(dir_fd); // makes the rename itself durable
    else
        unlink(tmp.c_str());
    close(dir_fd); // ends the lock
    return ok;
}

// Moves an unparsable store aside so that writing does not destroy what
// someone may want to inspect.
void move_aside(const std::string &path)
{
    std::string aside = path + ".corrupt";
    rename(path.c_str(), aside.c_str());
    if (reported_corrupt_path == path)
        reported_corrupt_path.clear();
}

} // namespace

int ZL_Storage_GetItem(std::string &key, Json::Value *out)
{
    if (!out)
        return 0;
    std::lock_guard<std::mutex> lock(store_mutex);
    Json::Value root;
    if (load(store_path(), &root) != LoadResult::ok || !root.isMember(key))
        return 0;
    *out = root[key];
    return 1;
}

int ZL_Storage_SetItem(std::string &key, const Json::Value &value)
{
    std::lock_guard<std::mutex> lock(store_mutex);
    std::string path = store_path();
    Json::Value root;
    LoadResult loaded = load(path, &root);
    if (loaded == LoadResult::failed)
        return 0; // never overwrite settings we could not read
    if (loaded == LoadResult::corrupt)
        move_aside(path);
    // The core saves its settings again on every switch and at each start;
    // an equal value costs no write, no fsync and no flash wear.
    else if (root.isMember(key) && root[key] == value)
        return 1;
    root[key] = value;
    return replace_file(path, root) ? 1 : 0;
}

int ZL_Storage_RemoveItem(std::string &key)
{
    std::lock_guard<std::mutex> lock(store_mutex);
    std::string path = store_path();
    Json::Value root;
    LoadResult loaded = load(path, &root);
    if (loaded == LoadResult::failed)
        return 0;
    // A corrupt store holds no keys, so there is nothing to write.
    if (loaded == LoadResult::corrupt || !root.isMember(key))
        return 1;
    root.removeMember(key);
    return replace_file(path, root) ? 1 : 0;
}
