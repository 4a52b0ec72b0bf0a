#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>

#include "results/run_sandbox.h"
#include "support/test_support.h"
#include "vorlund/results/sqlite/database.h"
#include "vorlund/results/sqlite/statement_cache.h"
#include "vorlund/results/sqlite/transaction.h"

namespace {

using vl::Dictionary;
using vl::Error;
using vl::Value;
using vl::sqlite::Database;
using vl::sqlite::ResultSet;
using vl::sqlite::StepResult;
using vl::sqlite::Transaction;
using vl::sqlite::TransactionMode;
using vl::test::sqliteTool;

int64_t count(Database& db, const std::string& table) {
  auto rows = db.executeQuery("SELECT count(*) AS n FROM " + table);
  return rows && rows->next() ? rows->longForColumn("n") : -1;
}

class SqliteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.open());
    ASSERT_TRUE(db_.executeStatements(
        "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT, n INTEGER, x REAL, blob BLOB);"));
  }
  vl::test::TempDir dir_;
  std::string path_ = dir_.file("test.db");
  Database db_{path_};
};

TEST_F(SqliteTest, UpdatesBindPlaceholdersAndQueriesReadRowsBack) {
  ASSERT_TRUE(
      db_.executeUpdate("INSERT INTO t(name, n, x, blob) VALUES (%@, %@, %@, %@)",
                        {"it's \"quoted\"", int64_t{1} << 40, 2.5, vl::Data::fromString("ab")}));
  EXPECT_EQ(db_.changes(), 1);
  ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name, n, x) VALUES (?, %@, ?)", {Value(), true, 7}));
  EXPECT_EQ(db_.lastInsertRowId(), 2);

  auto rows = db_.executeQuery("SELECT * FROM t WHERE id >= %@ ORDER BY id", {1});
  ASSERT_TRUE(rows);
  ASSERT_TRUE(rows->next());
  EXPECT_EQ(rows->stringForColumn("name"), "it's \"quoted\"");
  EXPECT_EQ(rows->valueForColumn("name"), Value("it's \"quoted\""));
  EXPECT_EQ(rows->longForColumn("N"), int64_t{1} << 40);  // names are case-insensitive
  EXPECT_EQ(rows->doubleForColumn(3), 2.5);
  EXPECT_EQ(rows->valueForColumn("blob"), Value(vl::Data::fromString("ab")));
  ASSERT_TRUE(rows->next());
  EXPECT_TRUE(rows->columnIsNull("name"));
  EXPECT_EQ(rows->resultDictionary(),
            (Dictionary{{"id", 2}, {"name", Value()}, {"n", 1}, {"x", 7.0}, {"blob", Value()}}));
  EXPECT_TRUE(rows->columnIsNull("no such column"));
  EXPECT_FALSE(rows->next());
  EXPECT_EQ(sqliteTool(path_, "SELECT name, n, blob FROM t WHERE id = 1"),
            "it's \"quoted\"|1099511627776|ab\n");
}

TEST_F(SqliteTest, FailuresAreReturnedWithSqlitesReason) {
  Error error;
  EXPECT_FALSE(db_.executeUpdate("INSERT INTO missing VALUES (1)", {}, &error));
  EXPECT_EQ(error.domain, vl::sqlite::kErrorDomain);
  EXPECT_EQ(error.localizedDescription(), "no such table: missing");
  EXPECT_EQ(db_.lastErrorMessage(), "no such table: missing");

  EXPECT_FALSE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"a", "b"}, &error));
  EXPECT_EQ(error.code, SQLITE_RANGE);
  EXPECT_FALSE(db_.executeQuery("SELEKT 1", {}, &error));
  EXPECT_NE(error.localizedDescription().find("syntax error"), std::string::npos);
  EXPECT_FALSE(db_.executeStatements("CREATE TABLE t(a);", &error));

  ASSERT_TRUE(db_.executeStatements("CREATE UNIQUE INDEX t_name ON t(name)"));
  ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"x"}));
  EXPECT_FALSE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"x"}, &error));
  EXPECT_EQ(error.code, SQLITE_CONSTRAINT_UNIQUE);
  // A later success clears the last error.
  ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"y"}));
  EXPECT_EQ(db_.lastErrorCode(), SQLITE_OK);

  db_.close();
  EXPECT_FALSE(db_.executeUpdate("INSERT INTO t(name) VALUES ('z')", {}, &error));
  EXPECT_EQ(error.code, SQLITE_MISUSE);
  EXPECT_FALSE(db_.executeQuery("SELECT 1"));
  EXPECT_EQ(db_.lastInsertRowId(), 0);
}

TEST(SqlitePlaceholderTest, OnlyPlaceholdersOutsideQuotedTextBecomeParameters) {
  EXPECT_EQ(vl::sqlite::bindablePlaceholders("VALUES (%@,%@)"), "VALUES (?,?)");
  EXPECT_EQ(vl::sqlite::bindablePlaceholders("WHERE a='%@' AND b=%@ AND \"%@\"=1"),
            "WHERE a='%@' AND b=? AND \"%@\"=1");
  EXPECT_EQ(vl::sqlite::bindablePlaceholders("'it''s %@' || %@ || '%'"), "'it''s %@' || ? || '%'");
}

TEST_F(SqliteTest, StatementsBindByNameStepAndReset) {
  auto statement = vl::sqlite::Statement::prepare(
      db_.handle(), "INSERT INTO t(name, n, x) VALUES (:name, :n, :x)");
  ASSERT_TRUE(statement);
  EXPECT_EQ(statement->parameterCount(), 3);
  Error error;
  EXPECT_FALSE(statement->bindText(":nope", "v", &error));
  EXPECT_FALSE(statement->bindInt64(4, 1, &error));
  EXPECT_EQ(error.code, SQLITE_RANGE);

  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(statement->bindText(":name", "row" + std::to_string(i)));
    ASSERT_TRUE(statement->bindInt64(":n", i));
    i == 1 ? statement->bindNull(":x") : statement->bindDouble(":x", i / 2.0);
    EXPECT_EQ(statement->step(), StepResult::kDone);
    statement->reset();
  }
  // Bindings outlive a reset until they are cleared.
  EXPECT_EQ(statement->step(), StepResult::kDone);
  statement->reset();
  statement->clearBindings();
  EXPECT_EQ(statement->step(), StepResult::kDone);
  statement->reset();

  auto select =
      vl::sqlite::Statement::prepare(db_.handle(), "SELECT name, n, x FROM t ORDER BY id");
  ASSERT_TRUE(select);
  EXPECT_EQ(select->columnName(1), "n");
  EXPECT_EQ(select->columnIndex("X"), 2);
  std::vector<std::string> names;
  while (select->step() == StepResult::kRow) {
    names.push_back(select->columnIsNull(0) ? "NULL" : select->columnText(0));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"row0", "row1", "row2", "row2", "NULL"}));
  EXPECT_FALSE(vl::sqlite::Statement::prepare(db_.handle(), "   "));
  EXPECT_FALSE(vl::sqlite::Statement::prepare(nullptr, "SELECT 1", &error));
}

TEST_F(SqliteTest, CachedStatementsAreCompiledOnceAndNeverHandedOutTwice) {
  auto first = db_.cachedStatement("SELECT %@");
  ASSERT_TRUE(first);
  ASSERT_TRUE(first->bindInt64(1, 5));
  // Held by the caller: a second request gets a private statement.
  auto second = db_.cachedStatement("SELECT %@");
  ASSERT_TRUE(second);
  EXPECT_NE(first.get(), second.get());
  vl::sqlite::Statement* cached = first.get();
  first.reset();
  second.reset();
  auto again = db_.cachedStatement("SELECT %@");
  EXPECT_EQ(again.get(), cached);
  // Handed back reset and unbound.
  ASSERT_EQ(again->step(), StepResult::kRow);
  EXPECT_TRUE(again->columnIsNull(0));
  again.reset();

  vl::sqlite::StatementCache cache(2);
  auto a = cache.get(db_.handle(), "SELECT 1").get();
  cache.get(db_.handle(), "SELECT 2");
  EXPECT_EQ(cache.get(db_.handle(), "SELECT 1").get(), a);  // now the most recent
  cache.get(db_.handle(), "SELECT 3");                      // drops "SELECT 2"
  EXPECT_EQ(cache.get(db_.handle(), "SELECT 1").get(), a);
  EXPECT_FALSE(cache.get(db_.handle(), "SELEKT"));
  EXPECT_EQ(cache.size(), 2u);
}

TEST_F(SqliteTest, ATransactionRollsBackUnlessCommitted) {
  {
    Transaction transaction(db_);
    ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"lost"}));
  }
  EXPECT_EQ(count(db_, "t"), 0);
  {
    Transaction transaction(db_, TransactionMode::kImmediate);
    ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name) VALUES (%@)", {"kept"}));
    // Only one transaction at a time on a connection.
    Error error;
    Transaction nested(db_, TransactionMode::kDeferred, &error);
    EXPECT_FALSE(nested.isActive());
    EXPECT_FALSE(nested.commit());
    ASSERT_TRUE(transaction.commit());
    EXPECT_FALSE(transaction.commit());
  }
  EXPECT_EQ(sqliteTool(path_, "SELECT name FROM t"), "kept\n");
  {
    Transaction transaction(db_);
    ASSERT_TRUE(db_.executeUpdate("DELETE FROM t"));
    ASSERT_TRUE(transaction.rollback());
  }
  EXPECT_EQ(count(db_, "t"), 1);
}

TEST_F(SqliteTest, BusyTimeoutAndResultSetsGiveBackTheirLocks) {
  ASSERT_TRUE(db_.executeUpdate("INSERT INTO t(name) VALUES ('a'), ('b')"));
  Database other(path_);
  ASSERT_TRUE(other.open());
  other.setBusyTimeout(std::chrono::milliseconds(50));

  {
    Transaction writer(db_, TransactionMode::kImmediate);
    auto start = std::chrono::steady_clock::now();
    Error error;
    Transaction blocked(other, TransactionMode::kImmediate, &error);
    EXPECT_FALSE(blocked.isActive());
    EXPECT_EQ(error.code, SQLITE_BUSY);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  }

  // A reader in the middle of its rows holds a shared lock that keeps a writer from committing...
  auto rows = db_.executeQuery("SELECT name FROM t");
  ASSERT_TRUE(rows && rows->next());
  Error error;
  EXPECT_FALSE(other.executeUpdate("INSERT INTO t(name) VALUES ('c')", {}, &error));
  EXPECT_EQ(error.code & 0xff, SQLITE_BUSY);
  // ...until it is closed.
  rows->close();
  EXPECT_TRUE(other.executeUpdate("INSERT INTO t(name) VALUES ('c')", {}, &error))
      << error.description();
  EXPECT_EQ(count(db_, "t"), 3);
}

}  // namespace
