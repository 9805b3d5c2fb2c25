// The SQLite helper against a real database file.
#include "cache/sqlite.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "support/temp_dir.h"

namespace {

enum class Col { key, number, real, blob, text };

std::string_view sqliteColumnName(Col c) {
  switch (c) {
    case Col::key:
      return "key";
    case Col::number:
      return "number";
    case Col::real:
      return "real";
    case Col::blob:
      return "blob";
    case Col::text:
      return "text";
  }
  return "";
}

using kp::SQLiteStatementError;
using kp::SQLiteValue;
using Code = SQLiteStatementError::Code;

class SQLiteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db_ = std::make_unique<kp::DefaultSQLiteDatabase>(*kp::Url::parse(dir_.fileUrl("with space.db")));
    db_->createPreparedStatement("CREATE TABLE t (key TEXT, number INTEGER, real REAL, blob BLOB, text TEXT)")
        ->execute();
  }
  void insert(std::vector<SQLiteValue> values) {
    db_->createPreparedStatement("INSERT INTO t VALUES (?, ?, ?, ?, ?)", values)->execute();
  }
  static Code codeOf(const std::function<void()>& f) {
    try {
      f();
    } catch (const SQLiteStatementError& e) {
      return e.code();
    }
    ADD_FAILURE() << "no error thrown";
    return Code::reading;
  }

  kp::test::TempDir dir_;
  std::unique_ptr<kp::DefaultSQLiteDatabase> db_;
};

TEST_F(SQLiteTest, OpensTheFileAtTheUrlsPathAndRoundTripsEveryKind) {
  EXPECT_TRUE(std::filesystem::exists(dir_.path() / "with space.db"));
  insert({SQLiteValue("a"), SQLiteValue(std::int32_t{7}), SQLiteValue(2.5), SQLiteValue(kp::Data{0, 1, 0, 2}),
          SQLiteValue("text\xc3\xa9")});
  insert({SQLiteValue("b"), SQLiteValue(), SQLiteValue(), SQLiteValue(kp::Data{}), SQLiteValue("cut\0here")});
  auto select = db_->createPreparedStatement("SELECT * FROM t ORDER BY key");
  auto rows = select->readAllRows<Col>();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].string(Col::key), "a");
  EXPECT_EQ(rows[0].int32(Col::number), 7);
  EXPECT_EQ(rows[0].double_(Col::real), 2.5);
  EXPECT_EQ(rows[0].data(Col::blob), (kp::Data{0, 1, 0, 2}));  // zero bytes survive in blobs
  EXPECT_EQ(rows[0].string(Col::text), "text\xc3\xa9");
  // No conversion between kinds.
  EXPECT_FALSE(rows[0].double_(Col::number));
  EXPECT_FALSE(rows[0].int32(Col::real));
  EXPECT_FALSE(rows[0].string(Col::number));
  // An empty buffer is stored as NULL; text stops at an embedded zero.
  EXPECT_TRUE(rows[1][Col::blob]->isNull());
  EXPECT_EQ(rows[1].string(Col::text), "cut");
  EXPECT_EQ(rows[1][Col::number]->kind(), SQLiteValue::Kind::null);
  // Reading on past the end yields nothing; re-reading with no rows yields an empty list.
  EXPECT_FALSE(select->readRow<Col>());
}

TEST_F(SQLiteTest, ReadsInvalidTextAsNullAndTruncatesWideIntegers) {
  db_->createPreparedStatement("INSERT INTO t (key, number, text) VALUES ('w', 4294967297, CAST(x'ff00fe' AS TEXT))")
      ->execute();
  auto row = db_->createPreparedStatement("SELECT number, text FROM t WHERE key = 'w'")->readRow<Col>();
  ASSERT_TRUE(row);
  EXPECT_EQ(row->int32(Col::number), 1);
  ASSERT_NE((*row)[Col::text], nullptr);
  EXPECT_TRUE((*row)[Col::text]->isNull());
  EXPECT_FALSE(row->string(Col::key));  // not selected: absent
  EXPECT_TRUE(db_->createPreparedStatement("SELECT * FROM t WHERE key = 'none'")->readAllRows<Col>().empty());
}

TEST_F(SQLiteTest, BindingPositionsExecuteRulesAndFinalizedStatements) {
  auto statement = db_->createPreparedStatement("INSERT INTO t (key, number, real) VALUES (?, ?, ?)");
  auto& concrete = static_cast<kp::DefaultSQLiteDatabase::PreparedStatement&>(*statement);
  statement->bind(SQLiteValue("k"));
  statement->bind(SQLiteValue(std::int32_t{1}), 3);  // an explicit position leaves the next one as it is
  EXPECT_EQ(codeOf([&] { statement->bind(SQLiteValue(1.0), 9); }), Code::binding);
  statement->bind(SQLiteValue(std::int32_t{5})).bind(SQLiteValue(0.5));
  EXPECT_EQ(codeOf([&] { statement->bind(SQLiteValue(1.0)); }), Code::binding);  // position 4 does not exist
  statement->execute();
  const auto row = db_->createPreparedStatement("SELECT number, real FROM t WHERE key = 'k'")->readRow<Col>();
  EXPECT_EQ(row->int32(Col::number), 5);
  EXPECT_EQ(row->double_(Col::real), 0.5);

  // Borrowed text is read where it lies and cut at a zero, as a bound string is; the reset lets
  // it go. Values read by position land in the caller's storage.
  auto byKey = db_->createPreparedStatement("SELECT number, real FROM t WHERE key = ?");
  const std::string buffer("k\0zz", 4);
  std::array<SQLiteValue, 2> values;
  byKey->bindBorrowedText(buffer);
  ASSERT_TRUE(byKey->readValues(values));
  EXPECT_EQ(values[0].asInt32(), 5);
  EXPECT_EQ(values[1].asDouble(), 0.5);
  byKey->reset();
  EXPECT_FALSE(byKey->readValues(values));  // no key bound any more
  byKey->reset();
  std::array<SQLiteValue, 3> tooMany;
  byKey->bindBorrowedText(std::string_view(buffer).substr(0, 1));
  EXPECT_EQ(codeOf([&] { (void)byKey->readValues(tooMany); }), Code::reading);
  statement->finalize();
  statement->finalize();  // harmless
  EXPECT_TRUE(concrete.isFinalized());
  EXPECT_EQ(codeOf([&] { statement->bind(SQLiteValue()); }), Code::isFinalized);
  EXPECT_EQ(codeOf([&] { statement->execute(); }), Code::isFinalized);
  EXPECT_EQ(codeOf([&] { (void)statement->readAllCells(); }), Code::isFinalized);

  // A SELECT that yields a row is not "done".
  EXPECT_EQ(codeOf([&] { db_->createPreparedStatement("SELECT 1")->execute(); }), Code::execute);
  // The first binding error of the list form is thrown.
  EXPECT_EQ(codeOf([&] {
              (void)db_->createPreparedStatement("SELECT ?", {SQLiteValue(std::int32_t{1}), SQLiteValue("extra")});
            }),
            Code::binding);
}

TEST(SQLiteDatabase, OpenAndPrepareFailuresThrowTheirErrors) {
  kp::test::TempDir dir;
  auto fails = [](const std::function<void()>& f) -> std::optional<kp::SQLiteDatabaseError::Code> {
    try {
      f();
    } catch (const kp::SQLiteDatabaseError& e) {
      return e.code();
    }
    return std::nullopt;
  };
  EXPECT_EQ(fails([&] { kp::DefaultSQLiteDatabase db(*kp::Url::parse(dir.fileUrl("missing/dir/x.db"))); }),
            kp::SQLiteDatabaseError::Code::unableToOpen);
  // A link at the file is not followed, not even to a database, nor to where one would be made.
  std::filesystem::create_symlink(dir.path() / "elsewhere.db", dir.path() / "linked.db");
  EXPECT_EQ(fails([&] { kp::DefaultSQLiteDatabase db(*kp::Url::parse(dir.fileUrl("linked.db"))); }),
            kp::SQLiteDatabaseError::Code::unableToOpen);
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "elsewhere.db"));
  kp::DefaultSQLiteDatabase db(*kp::Url::parse(dir.fileUrl("ok.db")));
  EXPECT_EQ(fails([&] { (void)db.createPreparedStatement("SELEKT nonsense"); }),
            kp::SQLiteDatabaseError::Code::couldNotPrepareStatement);
  EXPECT_EQ(fails([&] { (void)db.createPreparedStatement(""); }),
            kp::SQLiteDatabaseError::Code::couldNotPrepareStatement);
}

}  // namespace
