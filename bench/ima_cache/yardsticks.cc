#define OPENSSL_SUPPRESS_DEPRECATED

#include "bench/ima_cache/yardsticks.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <openssl/sha.h>
#include <sqlite3.h>
#include <unistd.h>

#include "platform/owners.h"

namespace {

constexpr std::size_t ROOM = 2 << 20;

// Into `buffer`, with its length in front.
std::size_t encode(bench_chunk &chunk, std::vector<std::byte> &buffer)
{
    buffer.resize(ROOM);
    std::int64_t length = message_encode(chunk.message(), std::span(buffer).subspan(4));
    require(length > 0 && length + 4 <= static_cast<std::int64_t>(ROOM), "a chunk cannot be encoded");
    auto prefix = static_cast<std::uint32_t>(length);
    std::memcpy(buffer.data(), &prefix, sizeof prefix);
    return static_cast<std::size_t>(length) + sizeof prefix;
}

struct database {
    sqlite3 *handle = nullptr;
    ~database() { sqlite3_close(handle); }
    void run(const char *statement)
    {
        require(sqlite3_exec(handle, statement, nullptr, nullptr, nullptr) == SQLITE_OK,
                sqlite3_errmsg(handle));
    }
};

struct statement {
    sqlite3_stmt *handle = nullptr;
    statement(database &in, const char *text)
    {
        require(sqlite3_prepare_v2(in.handle, text, -1, &handle, nullptr) == SQLITE_OK, text);
    }
    ~statement() { sqlite3_finalize(handle); }
};

void hash_rows(statement &rows, unsigned char *digest)
{
    SHA256_CTX hash;
    SHA256_Init(&hash);
    while (sqlite3_step(rows.handle) == SQLITE_ROW)
        SHA256_Update(&hash, sqlite3_column_blob(rows.handle, 0),
                      static_cast<std::size_t>(sqlite3_column_bytes(rows.handle, 0)));
    sqlite3_reset(rows.handle);
    SHA256_Final(digest, &hash);
}

} // namespace

void hash_of_file(const std::string &path, std::uint64_t end)
{
    static unsigned char buffer[4096];
    unsigned char digest[SHA256_DIGEST_LENGTH];
    unique_fd file(open(path.c_str(), O_RDONLY));
    require(lseek(file.get(), 32, SEEK_SET) == 32, "no file to hash");
    SHA256_CTX hash;
    SHA256_Init(&hash);
    for (std::uint64_t at = 32; at < end;) {
        ssize_t got = read(file.get(), buffer, std::min<std::uint64_t>(sizeof buffer, end - at));
        require(got > 0, "a file cannot be read");
        SHA256_Update(&hash, buffer, static_cast<std::size_t>(got));
        at += static_cast<std::uint64_t>(got);
    }
    SHA256_Final(digest, &hash);
}

void hash_encode_and_write(bench_chunk &chunk, const std::string &path)
{
    unique_fd file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    std::vector<std::byte> buffer(CACHE_BLOCK_HDR_LEN);
    std::uint64_t used = static_cast<std::uint64_t>(write(file.get(), buffer.data(), buffer.size()));
    for (std::uint64_t i = 0; i < CHUNKS_IN_BLOCK; ++i) {
        if (i > 0)
            hash_of_file(path, used);
        chunk.number_from(i * MAX_IMA_EVENTS + 1);
        std::size_t length = encode(chunk, buffer);
        require(pwrite(file.get(), buffer.data(), length, static_cast<off_t>(used)) ==
                    static_cast<ssize_t>(length),
                "a chunk cannot be written");
        used += length;
        hash_of_file(path, used);
    }
}

void fill_sqlite(bench_chunk &chunk, const std::string &path)
{
    database store;
    require(sqlite3_open(path.c_str(), &store.handle) == SQLITE_OK, "no database");
    store.run("PRAGMA journal_mode = WAL");
    store.run("PRAGMA synchronous = OFF"); // a cache does not outlive the boot
    store.run("CREATE TABLE chunk (id INTEGER PRIMARY KEY, data BLOB)");
    store.run("CREATE TABLE block (hash BLOB)");
    store.run("INSERT INTO block VALUES (NULL)");
    statement rows(store, "SELECT data FROM chunk ORDER BY id");
    statement insert(store, "INSERT INTO chunk (data) VALUES (?)");
    statement update(store, "UPDATE block SET hash = ?");
    unsigned char digest[SHA256_DIGEST_LENGTH];
    unsigned char stored[SHA256_DIGEST_LENGTH];
    std::vector<std::byte> buffer;
    for (std::uint64_t i = 0; i < CHUNKS_IN_BLOCK; ++i) {
        store.run("BEGIN");
        hash_rows(rows, digest);
        require(i == 0 || std::memcmp(digest, stored, sizeof stored) == 0, "the database is corrupt");
        chunk.number_from(i * MAX_IMA_EVENTS + 1);
        std::size_t length = encode(chunk, buffer);
        sqlite3_bind_blob(insert.handle, 1, buffer.data(), static_cast<int>(length), SQLITE_STATIC);
        require(sqlite3_step(insert.handle) == SQLITE_DONE, "a row cannot be inserted");
        sqlite3_reset(insert.handle);
        hash_rows(rows, stored);
        sqlite3_bind_blob(update.handle, 1, stored, sizeof stored, SQLITE_STATIC);
        require(sqlite3_step(update.handle) == SQLITE_DONE, "the hash cannot be stored");
        sqlite3_reset(update.handle);
        store.run("COMMIT");
    }
}
