// A thin, typed layer over SQLite: a database that prepares statements, a prepared statement
// that binds values by position, executes and reads rows, and can be reset for another run,
// and a typed row whose cells are tagged values addressed by a column vocabulary. No
// transactions, busy handling, schema knowledge or pooling: one object holds one connection,
// which stays open until the process ends even when the object is destroyed (sqlite.cc says
// why).
//
// Failures are thrown as SQLiteDatabaseError or SQLiteStatementError; they carry no SQLite
// code or message. A failed binding leaves the statement usable.
//
// Thread safety: none inside. A connection and its statements are used by one thread at a
// time; callers serialise (the cache database holds its own lock around every statement).
//
// Example:
//   enum class Col { key, size };
//   std::string_view sqliteColumnName(Col c) { return c == Col::key ? "key" : "size"; }
//
//   kp::DefaultSQLiteDatabase db(*kp::Url::parse("file:///tmp/cache.db"));
//   db.createPreparedStatement("INSERT INTO t VALUES (?, ?)", {kp::SQLiteValue("a"), kp::SQLiteValue(3)})
//       ->execute();
//   auto select = db.createPreparedStatement("SELECT key, size FROM t");
//   for (const auto& row : select->readAllRows<Col>()) row.int32(Col::size);
//   select->finalize();
#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "kp/platform/data.h"
#include "kp/platform/url.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kp {

// A tagged value of exactly one of five kinds. No conversion between kinds.
class SQLiteValue {
 public:
  enum class Kind { string, double_, data, int32, null };

  SQLiteValue() = default;  // null
  explicit SQLiteValue(std::string text) : value_(std::move(text)) {}
  explicit SQLiteValue(const char* text) : value_(std::string(text)) {}
  explicit SQLiteValue(double number) : value_(number) {}
  explicit SQLiteValue(Data bytes) : value_(std::move(bytes)) {}
  explicit SQLiteValue(std::int32_t number) : value_(number) {}
  [[nodiscard]] static SQLiteValue null() { return {}; }

  [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
  [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::null; }
  [[nodiscard]] const std::string* asString() const noexcept { return std::get_if<std::string>(&value_); }
  [[nodiscard]] const Data* asData() const noexcept { return std::get_if<Data>(&value_); }
  [[nodiscard]] std::optional<double> asDouble() const noexcept;
  [[nodiscard]] std::optional<std::int32_t> asInt32() const noexcept;
  // The bytes, moved out (empty when the value holds none); the value keeps an empty buffer.
  [[nodiscard]] Data takeData() && noexcept {
    Data* bytes = std::get_if<Data>(&value_);
    return bytes ? std::move(*bytes) : Data();
  }

  friend bool operator==(const SQLiteValue&, const SQLiteValue&) = default;

 private:
  std::variant<std::string, double, Data, std::int32_t, std::monostate> value_{std::monostate{}};
};

// A column vocabulary: an enumeration with a free function sqliteColumnName(Column) that
// gives the name the SQL result uses for the column.
template <class C>
concept SQLiteColumn = requires(C column) {
  { sqliteColumnName(column) } -> std::convertible_to<std::string_view>;
};

// One result row: cells by column name.
using SQLiteCells = std::unordered_map<std::string, SQLiteValue>;

template <SQLiteColumn Column>
class SQLiteRow {
 public:
  SQLiteRow() = default;
  explicit SQLiteRow(SQLiteCells cells) : cells_(std::move(cells)) {}

  // The cell of that column, or null when the row has none.
  [[nodiscard]] const SQLiteValue* operator[](Column column) const {
    auto it = cells_.find(std::string(sqliteColumnName(column)));
    return it == cells_.end() ? nullptr : &it->second;
  }
  // The payload when the cell exists and has that kind; nothing otherwise.
  [[nodiscard]] std::optional<std::int32_t> int32(Column column) const {
    const auto* cell = (*this)[column];
    return cell ? cell->asInt32() : std::nullopt;
  }
  [[nodiscard]] std::optional<double> double_(Column column) const {
    const auto* cell = (*this)[column];
    return cell ? cell->asDouble() : std::nullopt;
  }
  [[nodiscard]] std::optional<std::string> string(Column column) const {
    const auto* cell = (*this)[column];
    return cell && cell->asString() ? std::optional<std::string>(*cell->asString()) : std::nullopt;
  }
  [[nodiscard]] std::optional<Data> data(Column column) const {
    const auto* cell = (*this)[column];
    return cell && cell->asData() ? std::optional<Data>(*cell->asData()) : std::nullopt;
  }
  [[nodiscard]] const SQLiteCells& cells() const noexcept { return cells_; }

 private:
  SQLiteCells cells_;
};

class SQLiteDatabaseError : public std::exception {
 public:
  enum class Code { unableToOpen, couldNotPrepareStatement };
  explicit SQLiteDatabaseError(Code code) noexcept : code_(code) {}
  [[nodiscard]] Code code() const noexcept { return code_; }
  [[nodiscard]] const char* what() const noexcept override;

 private:
  Code code_;
};

class SQLiteStatementError : public std::exception {
 public:
  enum class Code { binding, execute, reading, isFinalized };
  explicit SQLiteStatementError(Code code) noexcept : code_(code) {}
  [[nodiscard]] Code code() const noexcept { return code_; }
  [[nodiscard]] const char* what() const noexcept override;

 private:
  Code code_;
};

class SQLitePreparedStatement {
 public:
  virtual ~SQLitePreparedStatement() = default;
  // Binds at the current position, then advances it (only when the binding succeeded).
  virtual SQLitePreparedStatement& bind(const SQLiteValue& value) = 0;
  // Binds at a 1-based position; the current position stays as it is.
  virtual SQLitePreparedStatement& bind(const SQLiteValue& value, int position) = 0;
  // Binds `text` at the current position, as bind() binds a string value, without copying
  // it: the text must stay as it is until the statement is reset.
  virtual SQLitePreparedStatement& bindBorrowedText(std::string_view text) = 0;
  // Runs the statement once to completion; a statement that yields a row fails.
  virtual SQLitePreparedStatement& execute() = 0;
  // The next result row's cells, or nothing when there is none (a stepping error also
  // ends the result set).
  [[nodiscard]] virtual std::optional<SQLiteCells> readCells() = 0;
  [[nodiscard]] virtual std::vector<SQLiteCells> readAllCells() = 0;
  // The next result row's first `values.size()` cells in the order of the selected columns,
  // read as readCells() reads them, into the caller's storage, for a caller that knows what it
  // selected: no names are read or kept. False when there is no row; a row of fewer columns
  // fails.
  [[nodiscard]] virtual bool readValues(std::span<SQLiteValue> values) = 0;
  // Makes the statement fresh again for another run: its result set ends, its bindings are
  // cleared and the binding position is 1. Nothing on a finalized statement.
  virtual void reset() noexcept = 0;
  // Releases the statement; idempotent. Every later bind, execute or read fails.
  virtual void finalize() noexcept = 0;

  template <SQLiteColumn Column>
  [[nodiscard]] std::optional<SQLiteRow<Column>> readRow() {
    auto cells = readCells();
    if (!cells) return std::nullopt;
    return SQLiteRow<Column>(std::move(*cells));
  }
  template <SQLiteColumn Column>
  [[nodiscard]] std::vector<SQLiteRow<Column>> readAllRows() {
    std::vector<SQLiteRow<Column>> rows;
    for (auto& cells : readAllCells()) rows.emplace_back(std::move(cells));
    return rows;
  }
};

class SQLiteDatabase {
 public:
  virtual ~SQLiteDatabase() = default;
  [[nodiscard]] virtual std::unique_ptr<SQLitePreparedStatement> createPreparedStatement(std::string_view sql) = 0;
  // Prepares, then binds `bindings` at positions 1, 2, 3 ...; the first binding error is
  // thrown and the statement dropped.
  [[nodiscard]] std::unique_ptr<SQLitePreparedStatement> createPreparedStatement(
      std::string_view sql, const std::vector<SQLiteValue>& bindings);
};

class DefaultSQLiteDatabase final : public SQLiteDatabase {
 public:
  class PreparedStatement;

  // Opens (creating when missing) the database at a file URL. Throws unableToOpen.
  // The connection stays open until the process ends, also after this object is gone.
  explicit DefaultSQLiteDatabase(Url path);
  ~DefaultSQLiteDatabase() override = default;
  DefaultSQLiteDatabase(const DefaultSQLiteDatabase&) = delete;
  DefaultSQLiteDatabase& operator=(const DefaultSQLiteDatabase&) = delete;

  using SQLiteDatabase::createPreparedStatement;
  [[nodiscard]] std::unique_ptr<SQLitePreparedStatement> createPreparedStatement(std::string_view sql) override;
  [[nodiscard]] const Url& path() const noexcept { return path_; }

 private:
  Url path_;
  sqlite3* db_ = nullptr;
};

class DefaultSQLiteDatabase::PreparedStatement final : public SQLitePreparedStatement {
 public:
  explicit PreparedStatement(sqlite3_stmt* statement) noexcept : statement_(statement) {}
  ~PreparedStatement() override { finalize(); }
  PreparedStatement(const PreparedStatement&) = delete;
  PreparedStatement& operator=(const PreparedStatement&) = delete;

  PreparedStatement& bind(const SQLiteValue& value) override;
  PreparedStatement& bind(const SQLiteValue& value, int position) override;
  PreparedStatement& bindBorrowedText(std::string_view text) override;
  PreparedStatement& execute() override;
  [[nodiscard]] std::optional<SQLiteCells> readCells() override;
  [[nodiscard]] std::vector<SQLiteCells> readAllCells() override;
  [[nodiscard]] bool readValues(std::span<SQLiteValue> values) override;
  void reset() noexcept override;
  void finalize() noexcept override;

  [[nodiscard]] std::int32_t currentBindingPosition() const noexcept { return currentBindingPosition_; }
  [[nodiscard]] bool isFinalized() const noexcept { return isFinalized_; }

 private:
  void requireLive() const;
  void advanceBindingPosition();
  [[nodiscard]] std::vector<std::string> columnNames() const;
  // Steps to the next row; false at the end of the result set, which stays ended.
  [[nodiscard]] bool step();
  [[nodiscard]] SQLiteValue cell(int column) const;
  [[nodiscard]] std::optional<SQLiteCells> stepRow(const std::vector<std::string>& names);

  sqlite3_stmt* statement_;
  std::int32_t currentBindingPosition_ = 1;
  bool isFinalized_ = false;
  bool exhausted_ = false;  // a read found no more rows
};

}  // namespace kp
