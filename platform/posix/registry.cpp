// The registry of the POSIX backend: a hive in one SQLite database.
//
// Layout. `keys` holds one row per key: its parent's id, its name as written and its folded name
// (upper-cased, UTF-16 big-endian, so that byte order is the order of Windows' case-blind
// comparison), its class and its last-write time. `vals` holds the values, keyed by key and folded
// name, with a sequence number that keeps the order in which they were first written. The row of
// id 0 is no key but the hive's clock: its `written` is the last stamp handed out, and every write
// takes max(now, last + 1) inside its own SQLite transaction, so stamps strictly increase across
// all processes that share the file. It lives among the keys rather than in a table of its own
// because a write then touches one page fewer, and the pages a commit appends to the journal are
// most of what a write costs. Names are
// stored as raw UTF-16 so that any code unit, an unpaired surrogate included, survives.
//
// Every write through a plain key is one IMMEDIATE transaction, committed before the call
// returns; reads run in a deferred transaction so that a call sees one state of the file. A
// registry transaction owns a connection of its own that takes the write lock at its first use
// and holds it until commit or rollback; keys opened through it use that connection.
//
// A file that is not a hive of this system is never written to: the application id and the
// schema version in the database header tell a hive from anything else.
#include "platform/registry.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <locale.h>
#include <pwd.h>
#include <sqlite3.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/handle_object.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {
namespace {

constexpr int kApplicationId = 0x4D52574C;  // "MRWL"
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 10000;
constexpr std::size_t kMaxKeyNameLength = 255;
constexpr std::size_t kMaxValueNameLength = 16383;
constexpr std::uint32_t kKeyMagic = 0x4D52484Bu;

constexpr std::int64_t kClassesRootId = 1;
constexpr std::int64_t kCurrentUserId = 2;
constexpr std::int64_t kLocalMachineId = 3;

using posix::HandleKind;
using posix::HandleObject;

// ---------------------------------------------------------------------------------------------
// Problems with the hive, told to a person.

thread_local std::u16string tlsProblem;

void NoteProblem(const std::string& path, std::string_view what) {
  tlsProblem = posix::FromUtf8("The registry hive " + path + " " + std::string(what));
}

// ---------------------------------------------------------------------------------------------
// Case folding: the simple upper-case mapping of each UTF-16 unit, as Windows compares names.

class UpcaseTable {
 public:
  UpcaseTable() : table_(0x10000) {
    locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    for (std::uint32_t c = 0; c < 0x10000; ++c) {
      std::uint32_t upper = c;
      if (c >= 'a' && c <= 'z') {
        upper = c - 32;
      } else if (utf8 != static_cast<locale_t>(nullptr) && c >= 0x80 &&
                 (c < 0xD800 || c > 0xDFFF)) {
        const auto mapped = static_cast<std::uint32_t>(towupper_l(static_cast<wint_t>(c), utf8));
        if (mapped < 0x10000 && (mapped < 0xD800 || mapped > 0xDFFF)) upper = mapped;
      }
      table_[c] = static_cast<char16_t>(upper);
    }
    if (utf8 != static_cast<locale_t>(nullptr)) freelocale(utf8);
  }
  char16_t operator()(char16_t c) const noexcept { return table_[c]; }

 private:
  std::vector<char16_t> table_;
};

const UpcaseTable& Upcase() {
  static const UpcaseTable* table = new UpcaseTable;
  return *table;
}

// The folded form of a name: big-endian upper-case units, compared bytewise by SQLite.
std::string Fold(std::u16string_view name) {
  const UpcaseTable& upcase = Upcase();
  std::string out(name.size() * 2, '\0');
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char16_t u = upcase(name[i]);
    out[2 * i] = static_cast<char>(u >> 8);
    out[2 * i + 1] = static_cast<char>(u & 0xFF);
  }
  return out;
}

std::u16string_view View(const char16_t* text) {
  return text == nullptr ? std::u16string_view() : std::u16string_view(text);
}

// ---------------------------------------------------------------------------------------------
// SQLite access.

DWORD ErrorOf(int rc) noexcept {
  switch (rc & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return ERROR_SUCCESS;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return ERROR_BUSY;
    case SQLITE_NOTADB:
      return ERROR_BADDB;
    case SQLITE_CORRUPT:
      return ERROR_REGISTRY_CORRUPT;
    case SQLITE_CANTOPEN:
      return ERROR_CANTOPEN;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return ERROR_ACCESS_DENIED;
    case SQLITE_FULL:
      return ERROR_DISK_FULL;
    case SQLITE_NOMEM:
      return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_TOOBIG:
      return ERROR_INVALID_PARAMETER;
    default:
      return ERROR_REGISTRY_IO_FAILED;
  }
}

// A prepared statement of a connection's cache, reset and unbound when the scope ends.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* stmt) noexcept : stmt_(stmt) {}
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() {
    if (stmt_ != nullptr) {
      sqlite3_reset(stmt_);
      sqlite3_clear_bindings(stmt_);
    }
  }
  [[nodiscard]] bool ok() const noexcept { return stmt_ != nullptr; }

  Statement& Bind(int index, std::int64_t value) {
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
  }
  // Bytes as a blob; an empty run is an empty blob, never NULL.
  Statement& Bind(int index, const void* data, std::size_t size) {
    if (size == 0) {
      sqlite3_bind_zeroblob(stmt_, index, 0);
    } else {
      sqlite3_bind_blob64(stmt_, index, data, size, SQLITE_STATIC);
    }
    return *this;
  }
  Statement& Bind(int index, std::u16string_view text) {
    return Bind(index, text.data(), text.size() * sizeof(char16_t));
  }
  Statement& Bind(int index, const std::string& bytes) {
    return Bind(index, bytes.data(), bytes.size());
  }

  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step() noexcept { return sqlite3_step(stmt_); }

  std::int64_t Int(int column) { return sqlite3_column_int64(stmt_, column); }
  std::size_t Size(int column) {
    return static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column));
  }
  const void* Blob(int column) { return sqlite3_column_blob(stmt_, column); }
  std::u16string_view Text(int column) {
    const void* data = sqlite3_column_blob(stmt_, column);
    const std::size_t size = static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column));
    if (data == nullptr) return {};
    return {static_cast<const char16_t*>(data), size / sizeof(char16_t)};
  }

 private:
  sqlite3_stmt* stmt_;
};

// One SQLite connection to a hive with its statement cache. Not for simultaneous use: the owner
// holds `mutex` around every use.
class Connection {
 public:
  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { Close(); }

  // Opens `path` and checks that it is a hive, making one of an empty file. On failure the
  // problem is noted for the person and the Windows error returned.
  DWORD Open(const std::string& path);
  void Close() noexcept {
    for (auto& entry : cache_) sqlite3_finalize(entry.second);
    cache_.clear();
    if (db_ != nullptr) sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  [[nodiscard]] bool IsOpen() const noexcept { return db_ != nullptr; }

  // The cached statement for `sql`, a string literal whose address is the cache key.
  Statement Prepare(const char* sql) {
    auto it = cache_.find(sql);
    if (it != cache_.end()) return Statement(it->second);
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
      return Statement(nullptr);
    }
    cache_.emplace(sql, stmt);
    return Statement(stmt);
  }

  int Exec(const char* sql) noexcept { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }

  // Runs one statement without results through the cache: BEGIN, COMMIT and their kin come
  // with every call, and parsing them anew each time would cost as much as the work itself.
  int Do(const char* sql) {
    Statement s = Prepare(sql);
    if (!s.ok()) return sqlite3_errcode(db_);
    const int rc = s.Step();
    return rc == SQLITE_DONE || rc == SQLITE_ROW ? SQLITE_OK : rc;
  }

  // Turns an SQLite failure into a Windows error, noting what it means for the hive.
  DWORD Fail(int rc) {
    const DWORD error = ErrorOf(rc);
    switch (error) {
      case ERROR_BADDB:
      case ERROR_REGISTRY_CORRUPT:
        NoteProblem(path_,
                    std::string("is damaged (") + sqlite3_errmsg(db_) + "); it was left as it is.");
        break;
      case ERROR_BUSY:
        NoteProblem(path_, "stayed locked by another process for " +
                               std::to_string(kBusyTimeoutMs / 1000) + " seconds.");
        break;
      case ERROR_ACCESS_DENIED:
        NoteProblem(path_, std::string("cannot be written (") + sqlite3_errmsg(db_) + ").");
        break;
      case ERROR_DISK_FULL:
        NoteProblem(path_, "cannot be written: the disk is full.");
        break;
      case ERROR_REGISTRY_IO_FAILED:
      case ERROR_CANTOPEN:
        NoteProblem(path_, std::string("cannot be read or written (") + sqlite3_errmsg(db_) + ").");
        break;
      default:
        break;
    }
    return error;
  }

  // Whether a statement's result is a failure rather than a row or the end.
  static bool Failed(int rc) noexcept { return rc != SQLITE_ROW && rc != SQLITE_DONE; }

  [[nodiscard]] int Changes() const noexcept { return sqlite3_changes(db_); }

  // Tells one state of the hive from another, as far as this connection can see: the data
  // version moves with commits of other connections, `writes` with those of this one.
  [[nodiscard]] std::int64_t DataVersion() {
    Statement s = Prepare("PRAGMA data_version");
    return s.ok() && s.Step() == SQLITE_ROW ? s.Int(0) : -1;
  }
  std::uint64_t writes = 0;
  [[nodiscard]] std::int64_t LastInsertId() const noexcept {
    return sqlite3_last_insert_rowid(db_);
  }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

  std::mutex mutex;

 private:
  DWORD OpenOnce(const std::string& path);
  DWORD Initialize();
  // Notes that the file is no hive of this system and answers ERROR_BADDB.
  DWORD Foreign();

  sqlite3* db_ = nullptr;
  std::string path_;
  std::unordered_map<const char*, sqlite3_stmt*> cache_;
};

// Reads one integer pragma; false on failure with `rc` set.
bool ReadPragma(sqlite3* db, const char* sql, int& value, int& rc) {
  sqlite3_stmt* stmt = nullptr;
  rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
  if (rc != SQLITE_OK) return false;
  rc = sqlite3_step(stmt);
  value = rc == SQLITE_ROW ? sqlite3_column_int(stmt, 0) : 0;
  if (rc == SQLITE_ROW || rc == SQLITE_DONE) rc = SQLITE_OK;
  sqlite3_finalize(stmt);
  return rc == SQLITE_OK;
}

// What the header and the schema of a database say about it.
struct HiveHeader {
  int applicationId = 0;
  int version = 0;
  int objects = 0;
};

// Reads the header inside the caller's transaction, so that all three come from one state of a
// file that another process may be making a hive at this moment.
bool ReadHeader(sqlite3* db, HiveHeader& header, int& rc) {
  return ReadPragma(db, "SELECT count(*) FROM sqlite_schema", header.objects, rc) &&
         ReadPragma(db, "PRAGMA application_id", header.applicationId, rc) &&
         ReadPragma(db, "PRAGMA user_version", header.version, rc);
}

constexpr const char* kSchema = R"sql(
CREATE TABLE keys(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  parent INTEGER NOT NULL,
  name BLOB NOT NULL,
  fold BLOB NOT NULL,
  class BLOB NOT NULL,
  written INTEGER NOT NULL);
CREATE UNIQUE INDEX keys_by_name ON keys(parent, fold);
CREATE TABLE vals(
  key INTEGER NOT NULL,
  fold BLOB NOT NULL,
  name BLOB NOT NULL,
  seq INTEGER NOT NULL,
  type INTEGER NOT NULL,
  data BLOB NOT NULL,
  PRIMARY KEY(key, fold)) WITHOUT ROWID;
CREATE INDEX vals_in_order ON vals(key, seq);
INSERT INTO keys(id, parent, name, fold, class, written) VALUES
  (0, -1, X'', X'', X'', 0),
  (1, 0, X'', X'01', X'', 0), (2, 0, X'', X'02', X'', 0), (3, 0, X'', X'03', X'', 0);
)sql";

// SQLite answers "busy" at once, without waiting for its busy handler, at a few moments of
// another process's work: while that process turns a fresh file into a WAL database or rebuilds
// the journal index of a hive it has just opened. Such an answer is tried again, in short steps,
// until the busy timeout has passed since the first try.
template <typename Attempt>
DWORD RetryWhileBusy(Attempt&& attempt) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  for (;;) {
    const DWORD error = attempt();
    if (error != ERROR_BUSY || std::chrono::steady_clock::now() >= deadline) return error;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

DWORD Connection::Open(const std::string& path) {
  return RetryWhileBusy([&] { return OpenOnce(path); });
}

DWORD Connection::OpenOnce(const std::string& path) {
  Close();
  path_ = path;
  tlsProblem.clear();  // a busy try before this one is no problem if this one succeeds
  // The hive holds the user's settings, passwords among them: a new one is for its owner only.
  // SQLite would make it readable by all, and its journal files take the mode of the database.
  if (const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); fd >= 0) {
    close(fd);
  }
  int rc =
      sqlite3_open_v2(path.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    const DWORD error = db_ != nullptr ? Fail(rc) : ERROR_NOT_ENOUGH_MEMORY;
    if (error != ERROR_NOT_ENOUGH_MEMORY) {
      NoteProblem(path_, std::string("cannot be opened (") + sqlite3_errstr(rc) + ").");
    }
    Close();
    return error == ERROR_REGISTRY_IO_FAILED ? ERROR_CANTOPEN : error;
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);

  HiveHeader header;
  rc = Exec("BEGIN");
  const bool read = rc == SQLITE_OK && ReadHeader(db_, header, rc);
  Exec(read ? "COMMIT" : "ROLLBACK");
  if (!read) {
    const DWORD error = Fail(rc);
    if (error == ERROR_BADDB) {
      NoteProblem(path_,
                  "is not a registry hive: the file is no database, or it is damaged; "
                  "it was left as it is.");
    }
    Close();
    return error;
  }
  DWORD error = ERROR_SUCCESS;
  if (header.applicationId == 0 && header.objects == 0) {
    error = Initialize();
  } else if (header.applicationId != kApplicationId) {
    error = Foreign();
  } else if (header.version > kSchemaVersion) {
    NoteProblem(path_, "was written by a newer version (format " + std::to_string(header.version) +
                           "); it was left as it is.");
    error = ERROR_BADDB;
  }
  if (error == ERROR_SUCCESS) {
    // A crash of the process never loses a committed write in WAL mode with NORMAL; only a
    // power loss may take back the last few, as a lazily flushed registry would.
    // Statement journals stay in memory, in small chunks: spilling ones take a 64 KiB block per
    // statement, which the allocator hands back to the system and faults in again on every write.
    rc = Exec("PRAGMA synchronous=NORMAL; PRAGMA temp_store=MEMORY");
    if (rc != SQLITE_OK) error = Fail(rc);
  }
  if (error != ERROR_SUCCESS) Close();
  return error;
}

// Makes an empty database a hive. Another process may be doing the same: the check is repeated
// under the write lock, and a database that holds anything at all is no hive to be made.
DWORD Connection::Foreign() {
  NoteProblem(path_,
              "is a database of another program, not a registry hive; it was left as it is.");
  return ERROR_BADDB;
}

DWORD Connection::Initialize() {
  // Only an empty database gets here, so switching its journal changes nobody's file.
  int rc = Exec("PRAGMA journal_mode=WAL");
  if (rc != SQLITE_OK) return Fail(rc);
  rc = Exec("BEGIN IMMEDIATE");
  if (rc != SQLITE_OK) return Fail(rc);
  HiveHeader header;
  if (!ReadHeader(db_, header, rc)) {
    Exec("ROLLBACK");
    return Fail(rc);
  }
  if (header.applicationId == kApplicationId) {
    // Made a hive by another process meanwhile.
    Exec("COMMIT");
    return header.version > kSchemaVersion ? Foreign() : DWORD{ERROR_SUCCESS};
  }
  if (header.applicationId != 0 || header.objects != 0) {
    Exec("ROLLBACK");
    return Foreign();
  }
  const std::string setup = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                            ";PRAGMA user_version=" + std::to_string(kSchemaVersion) + ";" +
                            kSchema;
  rc = sqlite3_exec(db_, setup.c_str(), nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK) rc = Exec("COMMIT");
  if (rc != SQLITE_OK) {
    Exec("ROLLBACK");
    return Fail(rc);
  }
  return ERROR_SUCCESS;
}

// ---------------------------------------------------------------------------------------------
// Hives, transactions and key handles.

std::string ResolveHivePath() {
  if (const char* env = std::getenv("MRWL_REGISTRY"); env != nullptr && *env != '\0') return env;
  std::string base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
      const passwd* entry = getpwuid(getuid());
      home = entry != nullptr ? entry->pw_dir : "/tmp";
    }
    base = std::string(home) + "/.config";
  }
  return base + "/marrowline/registry.db";
}

struct Hive {
  std::string path;
  Connection connection;

  // The threads whose registry transactions hold the write lock of the file. A plain write of
  // such a thread could only wait for itself until the busy timeout; it fails at once instead.
  [[nodiscard]] bool LockedBy(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(ownersMutex);
    return std::find(owners.begin(), owners.end(), thread) != owners.end();
  }
  void AddOwner(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(ownersMutex);
    owners.push_back(thread);
  }
  void RemoveOwner(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(ownersMutex);
    const auto it = std::find(owners.begin(), owners.end(), thread);
    if (it != owners.end()) owners.erase(it);
  }

  std::mutex ownersMutex;
  std::vector<std::thread::id> owners;
};

// The hive of the current location, opened on first use and whenever the location changes; a
// hive whose location changed lives on as long as keys of it are open.
DWORD CurrentHive(std::shared_ptr<Hive>& result) {
  static std::mutex* mutex = new std::mutex;
  static std::shared_ptr<Hive>* current = new std::shared_ptr<Hive>;
  const std::string path = ResolveHivePath();
  std::lock_guard<std::mutex> lock(*mutex);
  if (*current != nullptr && (*current)->path == path) {
    result = *current;
    return ERROR_SUCCESS;
  }
  std::error_code ignored;
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (!folder.empty() && !std::filesystem::exists(folder, ignored)) {
    std::filesystem::create_directories(folder, ignored);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ignored);
  }
  auto hive = std::make_shared<Hive>();
  hive->path = path;
  if (const DWORD error = hive->connection.Open(path); error != ERROR_SUCCESS) return error;
  *current = hive;
  result = std::move(hive);
  return ERROR_SUCCESS;
}

enum class TxnState { kActive, kCommitted, kRolledBack };

// The shared part of a registry transaction: its connection to the one hive it is bound to at
// its first use. Key handles of the transaction hold it too, so they outlive the handle safely.
struct TxnCore {
  std::mutex mutex;  // guards the fields and the state; the connection has its own
  TxnState state = TxnState::kActive;
  std::shared_ptr<Hive> hive;
  std::unique_ptr<Connection> connection;
  bool begun = false;
  std::thread::id owner;

  // The transaction took the write lock on the calling thread.
  void MarkBegun() {
    begun = true;
    owner = std::this_thread::get_id();
    hive->AddOwner(owner);
  }
  // The transaction let go of the write lock.
  void MarkEnded() {
    if (begun) hive->RemoveOwner(owner);
    begun = false;
  }

  ~TxnCore() {
    if (connection != nullptr && begun) connection->Exec("ROLLBACK");
    MarkEnded();
  }
};

struct TransactionObject final : HandleObject {
  TransactionObject() : HandleObject(HandleKind::kTransaction), core(std::make_shared<TxnCore>()) {}
  ~TransactionObject() override {
    std::lock_guard<std::mutex> lock(core->mutex);
    if (core->state == TxnState::kActive) {
      if (core->connection != nullptr && core->begun) core->connection->Exec("ROLLBACK");
      core->MarkEnded();
      core->state = TxnState::kRolledBack;
      core->connection.reset();
    }
  }
  std::shared_ptr<TxnCore> core;
};

// Where the last enumeration by index on a handle stood. Asked for the next index while the
// hive is unchanged, the enumeration continues behind the last sort key instead of counting from
// the start, which makes walking a key of n entries linear rather than quadratic.
struct EnumCursor {
  const void* connection = nullptr;
  std::uint64_t writes = 0;
  std::int64_t version = -1;
  DWORD index = 0;
  std::int64_t seq = 0;  // values: the sequence number of the entry at `index`
  std::string fold;      // subkeys: the folded name of the entry at `index`
};

struct KeyObject {
  std::uint32_t magic = kKeyMagic;
  std::shared_ptr<Hive> hive;
  std::shared_ptr<TxnCore> txn;
  std::int64_t id = 0;
  REGSAM access = 0;
  EnumCursor keys;
  EnumCursor values;
  ~KeyObject() { magic = 0; }
};

std::int64_t RootId(HKEY key) noexcept {
  if (key == HKEY_CLASSES_ROOT) return kClassesRootId;
  if (key == HKEY_CURRENT_USER) return kCurrentUserId;
  if (key == HKEY_LOCAL_MACHINE) return kLocalMachineId;
  return 0;
}

bool IsRootId(std::int64_t id) noexcept { return id >= kClassesRootId && id <= kLocalMachineId; }

// What a call works on: the key, and the connection and lock through which to reach it.
struct KeyRef {
  std::shared_ptr<Hive> hive;
  std::shared_ptr<TxnCore> txn;
  std::int64_t id = 0;
  REGSAM access = 0;
  KeyObject* object = nullptr;  // null for a predefined root
};

DWORD Resolve(HKEY key, KeyRef& ref) {
  if (const std::int64_t root = RootId(key); root != 0) {
    if (const DWORD error = CurrentHive(ref.hive); error != ERROR_SUCCESS) return error;
    ref.id = root;
    ref.access = KEY_ALL_ACCESS;
    return ERROR_SUCCESS;
  }
  auto* object = reinterpret_cast<KeyObject*>(key);
  if (object == nullptr || object->magic != kKeyMagic) return ERROR_INVALID_HANDLE;
  ref.hive = object->hive;
  ref.txn = object->txn;
  ref.id = object->id;
  ref.access = object->access;
  ref.object = object;
  return ERROR_SUCCESS;
}

HKEY NewKey(const KeyRef& ref, std::int64_t id, REGSAM access) {
  auto* object = new (std::nothrow) KeyObject;
  if (object == nullptr) return nullptr;
  object->hive = ref.hive;
  object->txn = ref.txn;
  object->id = id;
  object->access = access;
  return reinterpret_cast<HKEY>(object);
}

enum class Access {
  kWrite,   // changes the hive: all or nothing
  kRead,    // several statements that must see one state of the hive
  kGlance,  // reads whose statements may each see the latest state
};

// Runs `body` on the connection of `ref` under its lock. A write runs as one IMMEDIATE
// transaction of its own, or as a savepoint inside the registry transaction, and is undone
// whole when `body` fails; a read runs in a deferred transaction so that it sees one state. A
// glance needs neither: a lookup that answers with one statement, and its follow-up only when
// that found nothing, is as right with each statement on its own, and cheaper. Several
// statements are cheaper in one transaction, which locks the file once for all of them.
template <typename Body>
DWORD RunOnce(const KeyRef& ref, Access access, Body& body) {
  const bool write = access == Access::kWrite;
  tlsProblem.clear();
  Connection* connection = &ref.hive->connection;
  std::unique_lock<std::mutex> txnLock;
  if (ref.txn != nullptr) {
    txnLock = std::unique_lock<std::mutex>(ref.txn->mutex);
    if (ref.txn->state != TxnState::kActive || ref.txn->connection == nullptr) {
      return ERROR_TRANSACTION_NOT_ACTIVE;
    }
    connection = ref.txn->connection.get();
  } else if (write && ref.hive->LockedBy(std::this_thread::get_id())) {
    return ERROR_TRANSACTIONAL_CONFLICT;
  }
  std::lock_guard<std::mutex> lock(connection->mutex);
  if (ref.txn != nullptr) {
    if (!ref.txn->begun) {
      // The write lock is taken at once: a transaction that read first and wrote later could
      // otherwise find its snapshot outdated and fail at its first write.
      if (const int rc = connection->Do("BEGIN IMMEDIATE"); rc != SQLITE_OK) {
        return connection->Fail(rc);
      }
      ref.txn->MarkBegun();
    }
    if (!write) return body(*connection);
    ++connection->writes;
    if (const int rc = connection->Do("SAVEPOINT op"); rc != SQLITE_OK) {
      return connection->Fail(rc);
    }
    const DWORD error = body(*connection);
    if (error != ERROR_SUCCESS) connection->Do("ROLLBACK TO op");
    connection->Do("RELEASE op");
    return error;
  }
  if (access == Access::kGlance) return body(*connection);
  if (write) ++connection->writes;
  if (const int rc = connection->Do(write ? "BEGIN IMMEDIATE" : "BEGIN"); rc != SQLITE_OK) {
    return connection->Fail(rc);
  }
  DWORD error = body(*connection);
  if (error == ERROR_SUCCESS) {
    if (const int rc = connection->Do("COMMIT"); rc != SQLITE_OK) error = connection->Fail(rc);
  }
  if (error != ERROR_SUCCESS) connection->Do("ROLLBACK");
  return error;
}

// RunOnce, tried again while the hive is only briefly busy; what failed was undone before.
template <typename Body>
DWORD Run(const KeyRef& ref, Access access, Body&& body) {
  return RetryWhileBusy([&] { return RunOnce(ref, access, body); });
}

// ---------------------------------------------------------------------------------------------
// Steps that run inside Run.

DWORD KeyExists(Connection& c, std::int64_t id) {
  Statement s = c.Prepare("SELECT 1 FROM keys WHERE id = ?1");
  if (!s.ok()) return c.Fail(SQLITE_ERROR);
  const int rc = s.Bind(1, id).Step();
  if (rc == SQLITE_ROW) return ERROR_SUCCESS;
  if (rc == SQLITE_DONE) return ERROR_KEY_DELETED;
  return c.Fail(rc);
}

// The next stamp of the hive's clock: now, or one more than the last when the clock stands.
DWORD NextStamp(Connection& c, std::int64_t& stamp) {
  FILETIME now{};
  GetSystemTimeAsFileTime(&now);
  const auto nowValue = static_cast<std::int64_t>(
      (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
  Statement s =
      c.Prepare("UPDATE keys SET written = max(written + 1, ?1) WHERE id = 0 RETURNING written");
  if (!s.ok()) return c.Fail(SQLITE_ERROR);
  const int rc = s.Bind(1, nowValue).Step();
  if (rc != SQLITE_ROW) return c.Fail(rc == SQLITE_DONE ? SQLITE_CORRUPT : rc);
  stamp = s.Int(0);
  return ERROR_SUCCESS;
}

DWORD Touch(Connection& c, std::int64_t id, std::int64_t stamp) {
  Statement s = c.Prepare("UPDATE keys SET written = ?2 WHERE id = ?1");
  if (!s.ok()) return c.Fail(SQLITE_ERROR);
  const int rc = s.Bind(1, id).Bind(2, stamp).Step();
  if (rc != SQLITE_DONE) return c.Fail(rc);
  return c.Changes() == 0 ? ERROR_KEY_DELETED : ERROR_SUCCESS;
}

// Stamps `id` as written now.
DWORD TouchNow(Connection& c, std::int64_t id) {
  std::int64_t stamp = 0;
  if (const DWORD error = NextStamp(c, stamp); error != ERROR_SUCCESS) return error;
  return Touch(c, id, stamp);
}

// The child of `parent` named `name`: its id, or 0 when there is none.
DWORD FindChild(Connection& c, std::int64_t parent, std::u16string_view name, std::int64_t& id) {
  Statement s = c.Prepare("SELECT id FROM keys WHERE parent = ?1 AND fold = ?2");
  if (!s.ok()) return c.Fail(SQLITE_ERROR);
  const int rc = s.Bind(1, parent).Bind(2, Fold(name)).Step();
  if (Connection::Failed(rc)) return c.Fail(rc);
  id = rc == SQLITE_ROW ? s.Int(0) : 0;
  return ERROR_SUCCESS;
}

// Splits a key path into its names. A trailing backslash is allowed, as Windows allows it.
DWORD SplitPath(const char16_t* subKey, std::vector<std::u16string_view>& names) {
  names.clear();
  std::u16string_view path = View(subKey);
  if (path.empty()) return ERROR_SUCCESS;
  if (path.front() == u'\\') return ERROR_BAD_PATHNAME;
  if (path.back() == u'\\') path.remove_suffix(1);
  while (true) {
    const std::size_t slash = path.find(u'\\');
    const std::u16string_view name = path.substr(0, slash);
    if (name.empty()) return ERROR_BAD_PATHNAME;
    if (name.size() > kMaxKeyNameLength) return ERROR_INVALID_PARAMETER;
    names.push_back(name);
    if (slash == std::u16string_view::npos) return ERROR_SUCCESS;
    path.remove_prefix(slash + 1);
  }
}

// Follows `names` down from `id`. `missing` receives the index of the first name that does not
// exist (names.size() when all do) and `id` the deepest key found.
DWORD Walk(Connection& c, const std::vector<std::u16string_view>& names, std::int64_t& id,
           std::size_t& missing) {
  if (const DWORD error = KeyExists(c, id); error != ERROR_SUCCESS) return error;
  for (missing = 0; missing < names.size(); ++missing) {
    std::int64_t child = 0;
    if (const DWORD error = FindChild(c, id, names[missing], child); error != ERROR_SUCCESS) {
      return error;
    }
    if (child == 0) break;
    id = child;
  }
  return ERROR_SUCCESS;
}

// Deletes the keys below `id` with their values, and with `self` the key itself and its values.
DWORD DeleteBelow(Connection& c, std::int64_t id, bool self) {
  static constexpr const char* kValuesWithSelf = R"sql(
    WITH RECURSIVE t(id) AS (SELECT ?1 UNION ALL SELECT k.id FROM keys k JOIN t ON k.parent = t.id)
    DELETE FROM vals WHERE key IN t)sql";
  static constexpr const char* kKeysWithSelf = R"sql(
    WITH RECURSIVE t(id) AS (SELECT ?1 UNION ALL SELECT k.id FROM keys k JOIN t ON k.parent = t.id)
    DELETE FROM keys WHERE id IN t)sql";
  static constexpr const char* kValuesBelow = R"sql(
    WITH RECURSIVE t(id) AS (SELECT id FROM keys WHERE parent = ?1
                             UNION ALL SELECT k.id FROM keys k JOIN t ON k.parent = t.id)
    DELETE FROM vals WHERE key IN t OR key = ?1)sql";
  static constexpr const char* kKeysBelow = R"sql(
    WITH RECURSIVE t(id) AS (SELECT id FROM keys WHERE parent = ?1
                             UNION ALL SELECT k.id FROM keys k JOIN t ON k.parent = t.id)
    DELETE FROM keys WHERE id IN t)sql";
  for (const char* sql :
       {self ? kValuesWithSelf : kValuesBelow, self ? kKeysWithSelf : kKeysBelow}) {
    Statement s = c.Prepare(sql);
    if (!s.ok()) return c.Fail(SQLITE_ERROR);
    const int rc = s.Bind(1, id).Step();
    if (rc != SQLITE_DONE) return c.Fail(rc);
  }
  return ERROR_SUCCESS;
}

std::int64_t ParentOf(Connection& c, std::int64_t id) {
  Statement s = c.Prepare("SELECT parent FROM keys WHERE id = ?1");
  return s.ok() && s.Bind(1, id).Step() == SQLITE_ROW ? s.Int(0) : 0;
}

// Copies `text` with a terminator into `buffer` of `*length` characters. ERROR_MORE_DATA when it
// does not fit; `*length` then stays as it was.
DWORD CopyName(std::u16string_view text, char16_t* buffer, DWORD* length) {
  if (length == nullptr) return ERROR_INVALID_PARAMETER;
  if (buffer == nullptr || *length <= text.size()) return ERROR_MORE_DATA;
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = u'\0';
  *length = static_cast<DWORD>(text.size());
  return ERROR_SUCCESS;
}

// Hands out value data as RegQueryValueExW does.
DWORD CopyData(const void* data, std::size_t size, BYTE* buffer, DWORD* capacity) {
  if (buffer != nullptr && capacity == nullptr) return ERROR_INVALID_PARAMETER;
  if (capacity == nullptr) return ERROR_SUCCESS;
  const DWORD available = *capacity;
  *capacity = static_cast<DWORD>(size);
  if (buffer == nullptr) return ERROR_SUCCESS;
  if (available < size) return ERROR_MORE_DATA;
  if (size != 0) std::memcpy(buffer, data, size);
  return ERROR_SUCCESS;
}

FILETIME SplitStamp(std::int64_t stamp) {
  return posix::SplitFileTime(static_cast<ULONGLONG>(stamp));
}

// Whether an enumeration on `c` may go on behind `cursor` to `index`: the same index again or
// the next one, with the hive as it was. `version` is the connection's data version now.
bool CanContinue(const EnumCursor* cursor, const Connection& c, DWORD index, std::int64_t version) {
  return cursor != nullptr && cursor->connection == &c && cursor->writes == c.writes &&
         cursor->version == version && version >= 0 &&
         (index == cursor->index || index == cursor->index + 1);
}

void Remember(EnumCursor* cursor, const Connection& c, DWORD index, std::int64_t version) {
  if (cursor == nullptr) return;
  cursor->connection = &c;
  cursor->writes = c.writes;
  cursor->version = version;
  cursor->index = index;
}

// The common part of RegCreateKeyExW and RegCreateKeyTransactedW.
LSTATUS CreateKey(KeyRef ref, const char16_t* subKey, const char16_t* keyClass, REGSAM access,
                  HKEY* result, DWORD* disposition) {
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  std::vector<std::u16string_view> names;
  if (const DWORD error = SplitPath(subKey, names); error != ERROR_SUCCESS) return error;
  if (names.empty() && IsRootId(ref.id) && ref.txn == nullptr) {
    // Windows hands a predefined root back as it is.
    if (disposition != nullptr) *disposition = REG_OPENED_EXISTING_KEY;
    *result = ref.id == kClassesRootId   ? HKEY_CLASSES_ROOT
              : ref.id == kCurrentUserId ? HKEY_CURRENT_USER
                                         : HKEY_LOCAL_MACHINE;
    return ERROR_SUCCESS;
  }
  std::int64_t id = ref.id;
  std::size_t missing = 0;
  // Most calls open a key that exists; only a missing one needs the write lock.
  DWORD error = Run(ref, Access::kRead, [&](Connection& c) { return Walk(c, names, id, missing); });
  bool created = false;
  if (error == ERROR_SUCCESS && missing < names.size()) {
    if (!(ref.access & KEY_CREATE_SUB_KEY)) return ERROR_ACCESS_DENIED;
    const std::u16string_view className = View(keyClass);
    error = Run(ref, Access::kWrite, [&](Connection& c) {
      id = ref.id;
      if (DWORD e = Walk(c, names, id, missing); e != ERROR_SUCCESS) return e;
      if (missing == names.size()) return DWORD{ERROR_SUCCESS};
      std::int64_t stamp = 0;
      if (DWORD e = NextStamp(c, stamp); e != ERROR_SUCCESS) return e;
      if (DWORD e = Touch(c, id, stamp); e != ERROR_SUCCESS) return e;
      for (std::size_t i = missing; i < names.size(); ++i) {
        Statement s = c.Prepare(
            "INSERT INTO keys(parent, name, fold, class, written) VALUES(?1, ?2, ?3, ?4, ?5)");
        if (!s.ok()) return c.Fail(SQLITE_ERROR);
        const std::u16string_view cls = i + 1 == names.size() ? className : std::u16string_view();
        const int rc = s.Bind(1, id)
                           .Bind(2, names[i])
                           .Bind(3, Fold(names[i]))
                           .Bind(4, cls)
                           .Bind(5, stamp)
                           .Step();
        if (rc != SQLITE_DONE) return c.Fail(rc);
        id = c.LastInsertId();
      }
      created = true;
      return DWORD{ERROR_SUCCESS};
    });
  } else if (error == ERROR_SUCCESS) {
    // The key exists; nothing to create.
  }
  if (error != ERROR_SUCCESS) return error;
  if (missing < names.size() && !created) return ERROR_FILE_NOT_FOUND;
  *result = NewKey(ref, id, access);
  if (*result == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  if (disposition != nullptr)
    *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  return ERROR_SUCCESS;
}

// Runs a call body with no exception leaving: the registry functions are noexcept.
template <typename Body>
LSTATUS Guard(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

// The frame of a call on a key: no exception leaves, the hive problem of an earlier call is
// forgotten, and `body` runs on the resolved key only if the handle has the rights `needs`.
template <typename Body>
LSTATUS WithKey(HKEY key, REGSAM needs, Body&& body) noexcept {
  return Guard([&]() -> LSTATUS {
    tlsProblem.clear();
    KeyRef ref;
    if (const DWORD error = Resolve(key, ref); error != ERROR_SUCCESS) return error;
    if ((ref.access & needs) != needs) return ERROR_ACCESS_DENIED;
    return body(ref);
  });
}

// Hands out a class text as RegEnumKeyExW and RegQueryInfoKeyW do: copied when there is a
// buffer, else only its length when asked for.
DWORD HandOutClass(std::u16string_view text, char16_t* keyClass, DWORD* classLength) {
  if (keyClass != nullptr) return CopyName(text, keyClass, classLength);
  if (classLength != nullptr) *classLength = static_cast<DWORD>(text.size());
  return ERROR_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The functions of registry.h.

LSTATUS RegOpenKeyExW(HKEY key, const char16_t* subKey, DWORD, REGSAM access,
                      HKEY* result) noexcept {
  return Guard([&]() -> LSTATUS {
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    tlsProblem.clear();
    KeyRef ref;
    if (const DWORD error = Resolve(key, ref); error != ERROR_SUCCESS) return error;
    std::vector<std::u16string_view> names;
    if (const DWORD error = SplitPath(subKey, names); error != ERROR_SUCCESS) return error;
    if (names.empty() && RootId(key) != 0) {
      *result = key;
      return ERROR_SUCCESS;
    }
    std::int64_t id = ref.id;
    std::size_t missing = 0;
    const DWORD error =
        Run(ref, Access::kRead, [&](Connection& c) { return Walk(c, names, id, missing); });
    if (error != ERROR_SUCCESS) return error;
    if (missing < names.size()) return ERROR_FILE_NOT_FOUND;
    *result = NewKey(ref, id, access);
    return *result == nullptr ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
  });
}

LSTATUS RegCreateKeyExW(HKEY key, const char16_t* subKey, DWORD, const char16_t* keyClass, DWORD,
                        REGSAM access, void*, HKEY* result, DWORD* disposition) noexcept {
  return WithKey(key, 0, [&](const KeyRef& ref) -> LSTATUS {
    return CreateKey(ref, subKey, keyClass, access, result, disposition);
  });
}

LSTATUS RegCreateKeyTransactedW(HKEY key, const char16_t* subKey, DWORD, const char16_t* keyClass,
                                DWORD, REGSAM access, void*, HKEY* result, DWORD* disposition,
                                HANDLE transaction, void*) noexcept {
  return Guard([&]() -> LSTATUS {
    tlsProblem.clear();
    auto* txn = posix::As<TransactionObject>(transaction, HandleKind::kTransaction);
    if (txn == nullptr) return ERROR_INVALID_HANDLE;
    KeyRef ref;
    if (const DWORD error = Resolve(key, ref); error != ERROR_SUCCESS) return error;
    if (ref.txn != nullptr && ref.txn != txn->core) return ERROR_INVALID_PARAMETER;
    {
      std::lock_guard<std::mutex> lock(txn->core->mutex);
      TxnCore& core = *txn->core;
      if (core.state != TxnState::kActive) return ERROR_TRANSACTION_NOT_ACTIVE;
      if (core.hive == nullptr) {
        auto connection = std::make_unique<Connection>();
        if (const DWORD error = connection->Open(ref.hive->path); error != ERROR_SUCCESS) {
          return error;
        }
        core.hive = ref.hive;
        core.connection = std::move(connection);
      } else if (core.hive != ref.hive) {
        return ERROR_INVALID_PARAMETER;  // one transaction, one hive
      }
    }
    ref.txn = txn->core;
    return CreateKey(std::move(ref), subKey, keyClass, access, result, disposition);
  });
}

LSTATUS RegCloseKey(HKEY key) noexcept {
  if (RootId(key) != 0) return ERROR_SUCCESS;
  auto* object = reinterpret_cast<KeyObject*>(key);
  if (object == nullptr || object->magic != kKeyMagic) return ERROR_INVALID_HANDLE;
  delete object;
  return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExW(HKEY key, const char16_t* name, DWORD*, DWORD* type, BYTE* data,
                         DWORD* size) noexcept {
  return WithKey(key, KEY_QUERY_VALUE, [&](const KeyRef& ref) -> LSTATUS {
    if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
    const std::string fold = Fold(View(name));
    return Run(ref, Access::kGlance, [&](Connection& c) -> DWORD {
      Statement s = c.Prepare("SELECT type, data FROM vals WHERE key = ?1 AND fold = ?2");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      const int rc = s.Bind(1, ref.id).Bind(2, fold).Step();
      if (rc == SQLITE_DONE) {
        const DWORD error = KeyExists(c, ref.id);
        return error == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : error;
      }
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (type != nullptr) *type = static_cast<DWORD>(s.Int(0));
      return CopyData(s.Blob(1), s.Size(1), data, size);
    });
  });
}

LSTATUS RegSetValueExW(HKEY key, const char16_t* name, DWORD, DWORD type, const BYTE* data,
                       DWORD size) noexcept {
  return WithKey(key, KEY_SET_VALUE, [&](const KeyRef& ref) -> LSTATUS {
    if (data == nullptr && size != 0) return ERROR_NOACCESS;
    const std::u16string_view valueName = View(name);
    if (valueName.size() > kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
    const std::string fold = Fold(valueName);
    return Run(ref, Access::kWrite, [&](Connection& c) -> DWORD {
      if (DWORD e = TouchNow(c, ref.id); e != ERROR_SUCCESS) return e;
      Statement s = c.Prepare(R"sql(
        INSERT INTO vals(key, fold, name, seq, type, data)
        VALUES(?1, ?2, ?3, (SELECT coalesce(max(seq), 0) + 1 FROM vals WHERE key = ?1), ?4, ?5)
        ON CONFLICT(key, fold) DO UPDATE SET type = excluded.type, data = excluded.data)sql");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      const int rc = s.Bind(1, ref.id)
                         .Bind(2, fold)
                         .Bind(3, valueName)
                         .Bind(4, static_cast<std::int64_t>(type))
                         .Bind(5, data, size)
                         .Step();
      return rc == SQLITE_DONE ? DWORD{ERROR_SUCCESS} : c.Fail(rc);
    });
  });
}

LSTATUS RegDeleteValueW(HKEY key, const char16_t* name) noexcept {
  return WithKey(key, KEY_SET_VALUE, [&](const KeyRef& ref) -> LSTATUS {
    const std::string fold = Fold(View(name));
    return Run(ref, Access::kWrite, [&](Connection& c) -> DWORD {
      Statement s = c.Prepare("DELETE FROM vals WHERE key = ?1 AND fold = ?2");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      const int rc = s.Bind(1, ref.id).Bind(2, fold).Step();
      if (rc != SQLITE_DONE) return c.Fail(rc);
      if (c.Changes() == 0) {
        const DWORD error = KeyExists(c, ref.id);
        return error == ERROR_SUCCESS ? ERROR_FILE_NOT_FOUND : error;
      }
      return TouchNow(c, ref.id);
    });
  });
}

LSTATUS RegDeleteTreeW(HKEY key, const char16_t* subKey) noexcept {
  return WithKey(key, 0, [&](const KeyRef& ref) -> LSTATUS {
    std::vector<std::u16string_view> names;
    if (const DWORD error = SplitPath(subKey, names); error != ERROR_SUCCESS) return error;
    if (names.empty() && !(ref.access & KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
    return Run(ref, Access::kWrite, [&](Connection& c) -> DWORD {
      std::int64_t id = ref.id;
      std::size_t missing = 0;
      if (DWORD e = Walk(c, names, id, missing); e != ERROR_SUCCESS) return e;
      if (missing < names.size()) return ERROR_FILE_NOT_FOUND;
      if (names.empty()) {
        if (DWORD e = DeleteBelow(c, id, false); e != ERROR_SUCCESS) return e;
        return TouchNow(c, id);
      }
      const std::int64_t parent = ParentOf(c, id);
      if (DWORD e = DeleteBelow(c, id, true); e != ERROR_SUCCESS) return e;
      return TouchNow(c, parent);
    });
  });
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD*,
                      char16_t* keyClass, DWORD* classLength, FILETIME* lastWriteTime) noexcept {
  return WithKey(key, KEY_ENUMERATE_SUB_KEYS, [&](const KeyRef& ref) -> LSTATUS {
    if (nameLength == nullptr) return ERROR_INVALID_PARAMETER;
    EnumCursor* cursor = ref.object != nullptr ? &ref.object->keys : nullptr;
    return Run(ref, Access::kRead, [&](Connection& c) -> DWORD {
      const std::int64_t version = c.DataVersion();
      const bool next = CanContinue(cursor, c, index, version);
      Statement s = c.Prepare(
          !next ? "SELECT name, class, written, fold FROM keys WHERE parent = ?1"
                  " ORDER BY fold LIMIT 1 OFFSET ?2"
          : index == cursor->index
              ? "SELECT name, class, written, fold FROM keys WHERE parent = ?1 AND fold >= ?2"
                " ORDER BY fold LIMIT 1"
              : "SELECT name, class, written, fold FROM keys WHERE parent = ?1 AND fold > ?2"
                " ORDER BY fold LIMIT 1");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      s.Bind(1, ref.id);
      if (next) {
        s.Bind(2, cursor->fold);
      } else {
        s.Bind(2, static_cast<std::int64_t>(index));
      }
      const int rc = s.Step();
      if (rc == SQLITE_ROW && cursor != nullptr) {
        Remember(cursor, c, index, version);
        cursor->fold.assign(static_cast<const char*>(s.Blob(3)), s.Size(3));
      }
      if (rc == SQLITE_DONE) {
        const DWORD error = KeyExists(c, ref.id);
        return error == ERROR_SUCCESS ? ERROR_NO_MORE_ITEMS : error;
      }
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (DWORD e = CopyName(s.Text(0), name, nameLength); e != ERROR_SUCCESS) return e;
      if (DWORD e = HandOutClass(s.Text(1), keyClass, classLength); e != ERROR_SUCCESS) {
        return e;
      }
      if (lastWriteTime != nullptr) *lastWriteTime = SplitStamp(s.Int(2));
      return DWORD{ERROR_SUCCESS};
    });
  });
}

LSTATUS RegEnumValueW(HKEY key, DWORD index, char16_t* name, DWORD* nameLength, DWORD*, DWORD* type,
                      BYTE* data, DWORD* size) noexcept {
  return WithKey(key, KEY_QUERY_VALUE, [&](const KeyRef& ref) -> LSTATUS {
    if (nameLength == nullptr || (data != nullptr && size == nullptr)) {
      return ERROR_INVALID_PARAMETER;
    }
    EnumCursor* cursor = ref.object != nullptr ? &ref.object->values : nullptr;
    return Run(ref, Access::kRead, [&](Connection& c) -> DWORD {
      const std::int64_t version = c.DataVersion();
      const bool next = CanContinue(cursor, c, index, version);
      Statement s =
          c.Prepare(next ? "SELECT name, type, data, seq FROM vals WHERE key = ?1 AND seq >= ?2"
                           " ORDER BY seq LIMIT 1"
                         : "SELECT name, type, data, seq FROM vals WHERE key = ?1"
                           " ORDER BY seq LIMIT 1 OFFSET ?2");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      const std::int64_t from = !next                    ? static_cast<std::int64_t>(index)
                                : index == cursor->index ? cursor->seq
                                                         : cursor->seq + 1;
      const int rc = s.Bind(1, ref.id).Bind(2, from).Step();
      if (rc == SQLITE_ROW && cursor != nullptr) {
        Remember(cursor, c, index, version);
        cursor->seq = s.Int(3);
      }
      if (rc == SQLITE_DONE) {
        const DWORD error = KeyExists(c, ref.id);
        return error == ERROR_SUCCESS ? ERROR_NO_MORE_ITEMS : error;
      }
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (DWORD e = CopyName(s.Text(0), name, nameLength); e != ERROR_SUCCESS) return e;
      if (type != nullptr) *type = static_cast<DWORD>(s.Int(1));
      return CopyData(s.Blob(2), s.Size(2), data, size);
    });
  });
}

LSTATUS RegQueryInfoKeyW(HKEY key, char16_t* keyClass, DWORD* classLength, DWORD*, DWORD* subKeys,
                         DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                         DWORD* maxValueNameLength, DWORD* maxValueLength,
                         DWORD* securityDescriptorSize, FILETIME* lastWriteTime) noexcept {
  return WithKey(key, 0, [&](const KeyRef& ref) -> LSTATUS {
    return Run(ref, Access::kRead, [&](Connection& c) -> DWORD {
      Statement own = c.Prepare("SELECT class, written FROM keys WHERE id = ?1");
      if (!own.ok()) return c.Fail(SQLITE_ERROR);
      int rc = own.Bind(1, ref.id).Step();
      if (rc == SQLITE_DONE) return ERROR_KEY_DELETED;
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (DWORD e = HandOutClass(own.Text(0), keyClass, classLength); e != ERROR_SUCCESS) {
        return e;
      }
      if (lastWriteTime != nullptr) *lastWriteTime = SplitStamp(own.Int(1));

      Statement children = c.Prepare(
          "SELECT count(*), coalesce(max(length(name)), 0) / 2, coalesce(max(length(class)), 0) / 2"
          " FROM keys WHERE parent = ?1");
      if (!children.ok()) return c.Fail(SQLITE_ERROR);
      rc = children.Bind(1, ref.id).Step();
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (subKeys != nullptr) *subKeys = static_cast<DWORD>(children.Int(0));
      if (maxSubKeyLength != nullptr) *maxSubKeyLength = static_cast<DWORD>(children.Int(1));
      if (maxClassLength != nullptr) *maxClassLength = static_cast<DWORD>(children.Int(2));

      Statement vals = c.Prepare(
          "SELECT count(*), coalesce(max(length(name)), 0) / 2, coalesce(max(length(data)), 0)"
          " FROM vals WHERE key = ?1");
      if (!vals.ok()) return c.Fail(SQLITE_ERROR);
      rc = vals.Bind(1, ref.id).Step();
      if (rc != SQLITE_ROW) return c.Fail(rc);
      if (values != nullptr) *values = static_cast<DWORD>(vals.Int(0));
      if (maxValueNameLength != nullptr) *maxValueNameLength = static_cast<DWORD>(vals.Int(1));
      if (maxValueLength != nullptr) *maxValueLength = static_cast<DWORD>(vals.Int(2));
      // The hive keeps no security descriptors.
      if (securityDescriptorSize != nullptr) *securityDescriptorSize = 0;
      return DWORD{ERROR_SUCCESS};
    });
  });
}

LSTATUS RegRenameKey(HKEY key, const char16_t* subKey, const char16_t* newName) noexcept {
  return WithKey(key, 0, [&](const KeyRef& ref) -> LSTATUS {
    const std::u16string_view target = View(newName);
    if (target.empty() || target.size() > kMaxKeyNameLength ||
        target.find(u'\\') != std::u16string_view::npos) {
      return ERROR_INVALID_PARAMETER;
    }
    std::vector<std::u16string_view> names;
    if (const DWORD error = SplitPath(subKey, names); error != ERROR_SUCCESS) return error;
    const std::string fold = Fold(target);
    return Run(ref, Access::kWrite, [&](Connection& c) -> DWORD {
      std::int64_t id = ref.id;
      std::size_t missing = 0;
      if (DWORD e = Walk(c, names, id, missing); e != ERROR_SUCCESS) return e;
      if (missing < names.size()) return ERROR_FILE_NOT_FOUND;
      if (IsRootId(id)) return ERROR_ACCESS_DENIED;
      const std::int64_t parent = ParentOf(c, id);
      std::int64_t sibling = 0;
      if (DWORD e = FindChild(c, parent, target, sibling); e != ERROR_SUCCESS) return e;
      if (sibling != 0 && sibling != id) return ERROR_ACCESS_DENIED;
      std::int64_t stamp = 0;
      if (DWORD e = NextStamp(c, stamp); e != ERROR_SUCCESS) return e;
      Statement s = c.Prepare("UPDATE keys SET name = ?2, fold = ?3, written = ?4 WHERE id = ?1");
      if (!s.ok()) return c.Fail(SQLITE_ERROR);
      const int rc = s.Bind(1, id).Bind(2, target).Bind(3, fold).Bind(4, stamp).Step();
      if (rc != SQLITE_DONE) return c.Fail(rc);
      return Touch(c, parent, stamp);
    });
  });
}

HANDLE CreateTransaction(void*, void*, DWORD, DWORD, DWORD, DWORD, char16_t*) noexcept {
  auto* object = new (std::nothrow) TransactionObject;
  if (object == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_HANDLE_VALUE;
  }
  return object;
}

namespace {

// Ends a transaction with COMMIT or ROLLBACK. BOOL with the last error, as Windows answers.
BOOL EndTransaction(HANDLE transaction, bool commit) noexcept {
  auto* txn = posix::As<TransactionObject>(transaction, HandleKind::kTransaction);
  if (txn == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  tlsProblem.clear();
  TxnCore& core = *txn->core;
  std::lock_guard<std::mutex> lock(core.mutex);
  if (core.state != TxnState::kActive) {
    SetLastError(core.state == TxnState::kCommitted ? ERROR_TRANSACTION_ALREADY_COMMITTED
                                                    : ERROR_TRANSACTION_ALREADY_ABORTED);
    return FALSE;
  }
  DWORD error = ERROR_SUCCESS;
  if (core.connection != nullptr && core.begun) {
    std::lock_guard<std::mutex> connectionLock(core.connection->mutex);
    if (const int rc = core.connection->Do(commit ? "COMMIT" : "ROLLBACK"); rc != SQLITE_OK) {
      error = core.connection->Fail(rc);
      core.connection->Do("ROLLBACK");
    }
    core.MarkEnded();
  }
  core.state = commit && error == ERROR_SUCCESS ? TxnState::kCommitted : TxnState::kRolledBack;
  core.connection.reset();
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return FALSE;
  }
  return TRUE;
}

}  // namespace

BOOL CommitTransaction(HANDLE transaction) noexcept { return EndTransaction(transaction, true); }
BOOL RollbackTransaction(HANDLE transaction) noexcept { return EndTransaction(transaction, false); }

std::u16string RegHiveLocation() { return posix::FromUtf8(ResolveHivePath()); }

std::u16string RegHiveProblem() { return tlsProblem; }

}  // namespace mrwl::platform
