#include <kel/base64.h>
#include <kel/sqlite.h>

#include <sqlite3.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "support/mount_space.h"
#include "support/test.h"

using namespace kel::testing;

namespace {

class Sqlite : public ::testing::Test {
 protected:
  Sqlite() { EXPECT_TRUE(open(dir / "db") && db.CreateRegistryTable(&error)) << outcome(); }
  bool open(const std::string& path) {
    db.SetDBFilename(path);
    return db.Open(&error);
  }
  std::string outcome() const { return std::to_string(error.GetErrorCode()) + " " + error.what(); }
  /// What the sqlite3 tool says.
  std::string outside(const std::string& sql) {
    const std::string command = "sqlite3 " + db.GetDBFilename() + " '" + sql + "' >" + dir / "out";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return read_file(dir / "out");
  }

  TempDir dir;
  SQLiteException error;
  SQLiteConnection db;
};

TEST_F(Sqlite, RegistryAgreesWithAModelAndSoDoesTheTool) {
  std::map<std::string, std::string> model, committed;
  std::mt19937 random(1);
  for (int i = 0; i < 3000; ++i) {
    if (i % 50 == 0) {
      const bool keep = random() % 3 != 0;
      EXPECT_EQ(keep ? db.Commit(&error) : db.Rollback(&error), i != 0) << outcome();
      (keep ? committed : model) = keep ? model : committed;
      EXPECT_TRUE(db.SetAutoCommit(false, &error));
    }
    const auto name = random_bytes(random, random() % 3), asked = random_bytes(random, 1);
    const auto& value = model[name] = random_bytes(random, random() % 50);
    ASSERT_TRUE(db.SetRegistryItem(name, value, &error)) << outcome();
    EXPECT_EQ(db.GetRegistryItem(asked, &error), model.count(asked) ? model[asked] : "");
    EXPECT_EQ(error.GetErrorCode(), model.count(asked) ? SQLITE_ROW : SQLITE_DONE);
  }
  db.Close();  // and with it the last transaction
  std::string rows, hex;
  for (auto& [name, value] : committed) {
    value.insert(0, name);
    blob2hexstring(reinterpret_cast<unsigned char*>(value.data()), value.size(), hex);
    rows += std::exchange(hex, "") + "\n";
  }
  EXPECT_EQ(outside("SELECT hex(name) || hex(value) FROM registry ORDER BY name"), rows);
}

TEST_F(Sqlite, StatementsRunAgainWithNewValuesAfterRowsAndFailures) {
  ASSERT_TRUE(db.Execute("CREATE TABLE t (k INTEGER PRIMARY KEY, s, d, b)", &error));
  auto put = db.PrepareStatement("INSERT INTO t VALUES (?,?,?,?) RETURNING k");
  auto get = db.PrepareStatement("SELECT k, s, d, b FROM t WHERE k >= ? ORDER BY k");
  const std::string kept("a\0b", 3), row_text = "100 another row available";
  EXPECT_TRUE(put->SetString(2, kept) && put->SetDouble(3, 0.5) && put->SetBoolean(4, true));
  for (const long long key : {1LL, 1LL << 40, 1LL, 3LL}) {
    const bool again = key == 1 && !get->ExecuteQuery(&error).IsLast();
    EXPECT_TRUE(put->SetInt64(1, key) && put->Execute(&error) == !again);
    EXPECT_EQ(outcome(), again ? "19 UNIQUE constraint failed: t.k" : row_text);
    EXPECT_TRUE(get->SetInt(1, 0) && put->SetString(2, std::string(50, 't')));
  }
  EXPECT_FALSE(put->SetInt(5, 1) || put->SetString(0, kept) || put->Execute(&error));
  EXPECT_EQ(outcome(), "25 column index out of range");
  SQLiteResultSet row = get->ExecuteQuery(&error);
  EXPECT_TRUE(row.GetInt(0) == 1 && row.GetDouble(2) == 0.5 && row.GetBoolean(3));
  EXPECT_TRUE(row.GetString(1) == kept && row.GetString(9).empty() && row.Next(&error));
  EXPECT_TRUE(row.GetString(1).size() == 50 && row.Next(&error) && !row.IsLast());
  EXPECT_TRUE(row.GetInt64(0) == 1LL << 40 && row.GetBoolean(0) && row.GetInt(0) == 0);
  EXPECT_TRUE(row.Next(&error) && row.IsLast() && row.Next(&error) && row.IsLast());
  db.Close();
  EXPECT_FALSE(!db.Open(&error) || put->SetInt(1, 7) || get->ExecuteQuery(&error).Next(&error));
  EXPECT_EQ(outcome(), "21 bad parameter or other API misuse");
}

TEST_F(Sqlite, TellsWhyItFailed) {
  write_file(dir / "text", std::string(5000, 'x'));
  ::chmod(dir.path().c_str(), 0755);
  const auto outcome_of = [&](const std::string& path, const char* sql) {
    db.SetCorrupted();
    EXPECT_FALSE(open(path) && db.Execute(sql, &error));
    EXPECT_EQ(db.IsCorrupted(), !db.IsOpen());
    return outcome();
  };
  EXPECT_EQ(outcome_of(dir / "db", " -- nothing"), "21 bad parameter or other API misuse");
  EXPECT_EQ(outcome_of(dir / "db", "SELECT x FROM registry"), "1 no such column: x");
  EXPECT_EQ(outcome_of(dir / "db", "COMMIT"), "1 cannot commit - no transaction is active");
  EXPECT_EQ(outcome_of(dir / "text", "SELECT x FROM registry"), "26 file is not a database");
  EXPECT_EQ(outcome_of(dir / "none/db", ""), "14 unable to open database file");
  EXPECT_EQ(outcome_of(dir / "db" + '\0', ""), "14 unable to open database file");
  if (::seteuid(65534) != 0) GTEST_SKIP() << "cannot be another user";
  EXPECT_EQ(outcome_of(dir / "db", "DROP TABLE registry")[0], '8');  // read-only
  EXPECT_EQ(::seteuid(0), 0);
}

TEST_F(Sqlite, EveryFailedCallIsToldAndChangesNothing) {
  std::string stored = "a";
  const auto scenario = [&] {
    open(dir / "a database of its own") && db.CreateRegistryTable(&error);
    const std::string value(40, static_cast<char>(stored[0] + 1));
    if (db.SetRegistryItem("key", value, &error)) stored = value;
    const std::string got = db.GetRegistryItem("key", &error);
    EXPECT_EQ(got, error.IsGood() ? stored : "");
  };
  using Bind = int(sqlite3_stmt*, int, const char*, sqlite3_uint64, void (*)(void*), unsigned char);
  ReportCapture reports;
  EXPECT_GE(fail_each_new(scenario), 2);
  EXPECT_GE((fail_each<"sqlite3_step", int(sqlite3_stmt*)>(SQLITE_NOMEM, 0, scenario)), 3);
  EXPECT_GE((fail_each<"sqlite3_bind_text64", Bind>(SQLITE_NOMEM, 0, scenario)), 3);
}

TEST_F(Sqlite, DamageAndAFullDiskEndInAnError) {
  MountSpace space;
  if (!space.allowed()) GTEST_SKIP() << "cannot mount";
  space.memory(dir / "disk", "300k");
  EXPECT_TRUE(open(dir / "disk/db") && db.CreateRegistryTable(&error));
  int held = 0;
  while (db.SetRegistryItem(std::to_string(held), std::string(1000, 'v'), &error)) ++held;
  EXPECT_EQ(outcome(), "13 database or disk is full");
  EXPECT_EQ(outside("SELECT sum(length(value)) FROM registry"), std::to_string(held) + "000\n");
  std::string image = read_file(dir / "disk/db");
  write_file(dir / "damaged", image.replace(50'000, 10'000, 10'000, '\xff'));
  EXPECT_FALSE(open(dir / "damaged") && db.Execute("SELECT sum(value) FROM registry", &error));
  EXPECT_EQ(outcome(), "11 database disk image is malformed");
}

TEST_F(Sqlite, WaitsForALockOfAnotherProcess) {
  EXPECT_EQ(db.PrepareStatement("PRAGMA busy_timeout")->ExecuteQuery(&error).GetInt(0), 10'000);
  const std::string command = "sqlite3 " + (dir / "db") + " >" + (dir / "out");
  const std::unique_ptr<FILE, int (*)(FILE*)> tool(::popen(command.c_str(), "w"), ::pclose);
  ::setlinebuf(tool.get());
  std::fputs("BEGIN IMMEDIATE;\nREPLACE INTO registry VALUES('k', 1);\nSELECT 1;\n", tool.get());
  while (read_file(dir / "out").empty()) std::this_thread::yield();
  sqlite3_busy_timeout(db.GetHandle(), 50);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(db.SetAutoCommit(false, &error));
  EXPECT_EQ(outcome(), "5 database is locked");
  EXPECT_TRUE(db.Open(&error));
  std::thread end([&] { ::usleep(300'000), std::fputs("COMMIT;\n", tool.get()); });
  EXPECT_TRUE(db.SetAutoCommit(false, &error)) << outcome();
  end.join();
  EXPECT_EQ(db.GetRegistryItem("k", &error), "1");
  EXPECT_TRUE(db.SetRegistryItem("k", "ours", &error) && db.Commit(&error));
  EXPECT_EQ(outside("SELECT value FROM registry"), "ours\n");
}

}  // namespace
