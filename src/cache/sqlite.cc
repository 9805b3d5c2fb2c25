// The SQLite helper. Calls only: sqlite3_open_v2 (the URI-aware open, so that the file URL is
// honoured), sqlite3_prepare_v2, the five sqlite3_bind_* functions, sqlite3_step,
// sqlite3_column_count/_name/_type/_int/_double/_text/_blob/_bytes, sqlite3_reset,
// sqlite3_clear_bindings and sqlite3_finalize. Connections are never closed, by design.
//
// Why a connection stays open until the process ends: statements belong to their callers and
// may outlive the database object that prepared them, and SQLite cannot close a connection
// while one of its statements lives; closing later would need calls beyond the fixed set
// above, whose list is the wrapper's contract. A process opens one connection per cache
// controller or inspector (the shared controller's lives as long as the process anyway), each
// holding no more than SQLite's page cache, so what stays open is bounded by what the process
// made; the connections are kept reachable, not leaked.
#include "cache/sqlite.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>

#include "platform/no_destructor.h"
#include "platform/utf8.h"

namespace kp {
namespace {

// SQLite's "transient" destructor marker: SQLite copies the bytes before the call returns.
const sqlite3_destructor_type sqliteTransient = SQLITE_TRANSIENT;
// SQLite's "static" marker: the bytes stay where they are while SQLite uses them.
const sqlite3_destructor_type sqliteStatic = SQLITE_STATIC;

// Connections live until the process ends (see the top of this file); they are kept here so
// that they stay reachable.
void keepOpen(sqlite3* db) {
  static std::mutex mutex;
  static internal::NoDestructor<std::vector<sqlite3*>> open;
  std::lock_guard lock(mutex);
  open->push_back(db);
}

}  // namespace

std::optional<double> SQLiteValue::asDouble() const noexcept {
  if (const auto* v = std::get_if<double>(&value_)) return *v;
  return std::nullopt;
}

std::optional<std::int32_t> SQLiteValue::asInt32() const noexcept {
  if (const auto* v = std::get_if<std::int32_t>(&value_)) return *v;
  return std::nullopt;
}

const char* SQLiteDatabaseError::what() const noexcept {
  switch (code_) {
    case Code::unableToOpen:
      return "unable to open the SQLite database";
    case Code::couldNotPrepareStatement:
      return "could not prepare the SQLite statement";
  }
  return "SQLite database error";
}

const char* SQLiteStatementError::what() const noexcept {
  switch (code_) {
    case Code::binding:
      return "could not bind a value to the SQLite statement";
    case Code::execute:
      return "the SQLite statement did not run to completion";
    case Code::reading:
      return "could not read a row of the SQLite statement";
    case Code::isFinalized:
      return "the SQLite statement is finalized";
  }
  return "SQLite statement error";
}

std::unique_ptr<SQLitePreparedStatement> SQLiteDatabase::createPreparedStatement(
    std::string_view sql, const std::vector<SQLiteValue>& bindings) {
  auto statement = createPreparedStatement(sql);
  for (const auto& value : bindings) statement->bind(value);
  return statement;
}

DefaultSQLiteDatabase::DefaultSQLiteDatabase(Url path) : path_(std::move(path)) {
  // Without SQLite's own lock around each call (NOMUTEX): a connection is used by one thread
  // at a time (see the header), so that lock would only repeat the caller's. A symbolic link at
  // the file is refused rather than followed: whoever planted it would have the cache write
  // where the link leads.
  const int rc = sqlite3_open_v2(
      path_.absoluteString().c_str(), &db_,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
      nullptr);
  if (db_ != nullptr) keepOpen(db_);  // even a failed open allocates a handle
  if (rc != SQLITE_OK || db_ == nullptr) throw SQLiteDatabaseError(SQLiteDatabaseError::Code::unableToOpen);
}

std::unique_ptr<SQLitePreparedStatement> DefaultSQLiteDatabase::createPreparedStatement(std::string_view sql) {
  const std::string text(sql);  // a terminated copy: SQLite reads to the zero byte
  sqlite3_stmt* statement = nullptr;
  const int rc = sqlite3_prepare_v2(db_, text.c_str(), -1, &statement, nullptr);
  if (rc != SQLITE_OK || statement == nullptr) {
    throw SQLiteDatabaseError(SQLiteDatabaseError::Code::couldNotPrepareStatement);
  }
  return std::make_unique<PreparedStatement>(statement);
}

void DefaultSQLiteDatabase::PreparedStatement::requireLive() const {
  if (isFinalized_) throw SQLiteStatementError(SQLiteStatementError::Code::isFinalized);
}

void DefaultSQLiteDatabase::PreparedStatement::advanceBindingPosition() {
  if (currentBindingPosition_ == std::numeric_limits<std::int32_t>::max()) {
    std::fputs("SQLite binding position overflow\n", stderr);
    std::abort();
  }
  ++currentBindingPosition_;
}

DefaultSQLiteDatabase::PreparedStatement& DefaultSQLiteDatabase::PreparedStatement::bind(const SQLiteValue& value) {
  bind(value, currentBindingPosition_);
  advanceBindingPosition();
  return *this;
}

DefaultSQLiteDatabase::PreparedStatement& DefaultSQLiteDatabase::PreparedStatement::bindBorrowedText(
    std::string_view text) {
  requireLive();
  // Cut at the first zero byte, as a bound string value is.
  text = text.substr(0, text.find('\0'));
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw SQLiteStatementError(SQLiteStatementError::Code::binding);
  }
  // SQLite reads the text where it lies until the statement is reset (reset() also clears the
  // binding, so that no statement keeps a pointer into a buffer that has gone).
  if (sqlite3_bind_text(statement_, currentBindingPosition_, text.data(), static_cast<int>(text.size()),
                        sqliteStatic) != SQLITE_OK) {
    throw SQLiteStatementError(SQLiteStatementError::Code::binding);
  }
  advanceBindingPosition();
  return *this;
}

DefaultSQLiteDatabase::PreparedStatement& DefaultSQLiteDatabase::PreparedStatement::bind(const SQLiteValue& value,
                                                                                         int position) {
  requireLive();
  int rc = SQLITE_OK;
  switch (value.kind()) {
    case SQLiteValue::Kind::string:
      // Length -1: SQLite reads to the first zero byte, so text is cut there.
      rc = sqlite3_bind_text(statement_, position, value.asString()->c_str(), -1, sqliteTransient);
      break;
    case SQLiteValue::Kind::double_:
      rc = sqlite3_bind_double(statement_, position, *value.asDouble());
      break;
    case SQLiteValue::Kind::data: {
      const Data& bytes = *value.asData();
      if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw SQLiteStatementError(SQLiteStatementError::Code::binding);
      }
      // An empty buffer passes no pointer, which SQLite stores as NULL.
      rc = sqlite3_bind_blob(statement_, position, bytes.empty() ? nullptr : bytes.data(),
                             static_cast<int>(bytes.size()), sqliteTransient);
      break;
    }
    case SQLiteValue::Kind::int32:
      rc = sqlite3_bind_int(statement_, position, *value.asInt32());
      break;
    case SQLiteValue::Kind::null:
      rc = sqlite3_bind_null(statement_, position);
      break;
  }
  if (rc != SQLITE_OK) throw SQLiteStatementError(SQLiteStatementError::Code::binding);
  return *this;
}

DefaultSQLiteDatabase::PreparedStatement& DefaultSQLiteDatabase::PreparedStatement::execute() {
  requireLive();
  if (sqlite3_step(statement_) != SQLITE_DONE) throw SQLiteStatementError(SQLiteStatementError::Code::execute);
  return *this;
}

std::vector<std::string> DefaultSQLiteDatabase::PreparedStatement::columnNames() const {
  const int count = sqlite3_column_count(statement_);
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(statement_, i);
    if (name == nullptr || !internal::isValidUtf8(name)) {
      throw SQLiteStatementError(SQLiteStatementError::Code::reading);
    }
    names.emplace_back(name);
  }
  return names;
}

bool DefaultSQLiteDatabase::PreparedStatement::step() {
  // SQLite restarts a statement that is stepped after its end; a finished result set stays
  // finished instead.
  if (exhausted_ || sqlite3_step(statement_) != SQLITE_ROW) {
    exhausted_ = true;
    return false;
  }
  return true;
}

SQLiteValue DefaultSQLiteDatabase::PreparedStatement::cell(int column) const {
  switch (sqlite3_column_type(statement_, column)) {
    case SQLITE_INTEGER:
      return SQLiteValue(static_cast<std::int32_t>(sqlite3_column_int(statement_, column)));
    case SQLITE_FLOAT:
      return SQLiteValue(sqlite3_column_double(statement_, column));
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
      const std::string_view bytes(text == nullptr ? "" : text, text == nullptr ? 0 : size);
      if (internal::isValidUtf8(bytes)) return SQLiteValue(std::string(bytes));
      return SQLiteValue();
    }
    case SQLITE_BLOB: {
      // The blob accessor hands the bytes over where they lie; the text accessor would first
      // copy them to add a terminating zero.
      const auto* bytes = sqlite3_column_blob(statement_, column);
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
      return SQLiteValue(bytes == nullptr ? Data() : Data(bytes, size));
    }
    case SQLITE_NULL:
      return SQLiteValue();
    default:
      throw SQLiteStatementError(SQLiteStatementError::Code::reading);
  }
}

std::optional<SQLiteCells> DefaultSQLiteDatabase::PreparedStatement::stepRow(const std::vector<std::string>& names) {
  if (!step()) return std::nullopt;
  SQLiteCells cells;
  cells.reserve(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) cells.insert_or_assign(names[i], cell(static_cast<int>(i)));
  return cells;
}

std::optional<SQLiteCells> DefaultSQLiteDatabase::PreparedStatement::readCells() {
  requireLive();
  return stepRow(columnNames());
}

std::vector<SQLiteCells> DefaultSQLiteDatabase::PreparedStatement::readAllCells() {
  requireLive();
  const auto names = columnNames();
  std::vector<SQLiteCells> rows;
  while (auto row = stepRow(names)) rows.push_back(std::move(*row));
  return rows;
}

bool DefaultSQLiteDatabase::PreparedStatement::readValues(std::span<SQLiteValue> values) {
  requireLive();
  if (!step()) return false;
  if (static_cast<std::size_t>(sqlite3_column_count(statement_)) < values.size()) {
    throw SQLiteStatementError(SQLiteStatementError::Code::reading);
  }
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = cell(static_cast<int>(i));
  return true;
}

void DefaultSQLiteDatabase::PreparedStatement::reset() noexcept {
  if (isFinalized_) return;
  // The code returned repeats the last step's error, which its caller has seen already.
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
  currentBindingPosition_ = 1;
  exhausted_ = false;
}

void DefaultSQLiteDatabase::PreparedStatement::finalize() noexcept {
  if (isFinalized_) return;
  sqlite3_clear_bindings(statement_);
  sqlite3_finalize(statement_);
  isFinalized_ = true;
}

}  // namespace kp
