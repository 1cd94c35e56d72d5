// Token backups on each engine: parts, the series per type, and reading back whole.
#include "db/backups.h"

#include <algorithm>
#include <random>

#include "domain_fixture.h"
#include "infra/arrays.h"
#include "infra/runtime_error.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kBert = "A1B2C3D4-0000-4000-8000-00000000000B";

// Bytes 0 to 255 in a random order, repeated and cut to `size`.
std::string RandomBytes(std::mt19937& random, size_t size) {
  std::string bytes(size, '\0');
  std::uniform_int_distribution<int> byte(0, 255);
  for (char& c : bytes) c = static_cast<char>(byte(random));
  return bytes;
}

class BackupsTest : public DomainDbTest {
 protected:
  void SetUp() override {
    DomainDbTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    SetPartSize(1000);
  }

  void SetPartSize(int32_t size) {
    DatabaseSettings s = db().settings();
    s.blob_max_size = size;
    db().set_settings(s);
  }

  // Saves a backup; gives "OK" or the refusal text ("" for a failure without one).
  std::string Save(std::string_view guid, int32_t type, std::string_view name,
                   std::string_view data) {
    std::string result;
    return DBSetTokenBackupData(db(), maxima_, guid, type, name, data, result) ? "OK" : result;
  }

  std::string Read(std::string_view guid, std::string_view index, int32_t type) {
    time_.clear();
    return DBGetTokenBackupData(db(), guid, index, type, time_);
  }

  // The names of a token's backups of `type`, sorted (the order of the rows is the engine's).
  std::string Names(std::string_view guid, int32_t type) {
    std::vector<std::string> lines = Split(DBGetTokenBackupNames(db(), guid, type), "\r\n");
    std::sort(lines.begin(), lines.end());
    return Join(lines, "|");
  }

  BackupMaxima maxima_;
  std::string time_;
};

TEST(BackupSplitTest, PartsAreFullButTheLast) {
  RegistryStore registry("/nonexistent/registry.reg");
  Log log(registry, "/dev/null");
  EXPECT_EQ(GetDataSplitCount(log, 2500, 1000), 3);
  EXPECT_EQ(GetDataSplitSize(log, 2500, 1000, 1), 1000);
  EXPECT_EQ(GetDataSplitSize(log, 2500, 1000, 3), 500);
  EXPECT_EQ(GetDataSplitCount(log, 2000, 1000), 2);
  EXPECT_EQ(GetDataSplitSize(log, 2000, 1000, 2), 1000)
      << "an exact multiple ends with a full part";
  EXPECT_EQ(GetDataSplitCount(log, 1000, 1000), 1);
  EXPECT_EQ(GetDataSplitCount(log, 0, 1000), 1);
  EXPECT_EQ(GetDataSplitSize(log, 0, 1000, 1), 0);
  EXPECT_EQ(GetDataSplitCount(log, 0, 0), 1);
  EXPECT_THROW(GetDataSplitCount(log, 1, 0), RuntimeError);
  // A negative part size divides like any other: the quotient rounded up is no part at all.
  EXPECT_EQ(GetDataSplitCount(log, 10, -3), -3);
  EXPECT_EQ(GetDataSplitCount(log, 0, -1), 0);
}

TEST_P(BackupsTest, ANegativePartSizeStoresNoPartAndSucceeds) {
  SetPartSize(-5);
  EXPECT_EQ(Save(kAnna, kAdminBackup, "ohne Teile", "some data"), "OK");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_backup"), "0");
  EXPECT_FALSE(Logged("DBSetTokenBackupData (Error)"));
}

TEST_P(BackupsTest, EachPartsSizeIsLoggedJustBeforeItsInsert) {
  SetPartSize(4);
  ASSERT_EQ(Save(kAnna, kAdminBackup, "drei", "0123456789"), "OK");
  const std::string log = LogText();
  size_t from = 0;
  for (int part = 1; part <= 3; ++part) {
    const size_t size_line = log.find("GetDataSplitSize (OK)", from);
    const size_t insert = log.find("INSERT INTO tbl_kdx_backup", from);
    ASSERT_NE(size_line, std::string::npos) << part;
    ASSERT_NE(insert, std::string::npos) << part;
    EXPECT_LT(size_line, insert) << part;
    from = insert + 1;
    EXPECT_GT(log.find("GetDataSplitSize (OK)", size_line + 1), insert) << part;
  }
}

TEST_P(BackupsTest, ALongBackupIsStoredInPartsAndReadBackWhole) {
  std::mt19937 random(7);
  const std::string data = RandomBytes(random, 2500);
  EXPECT_EQ(Save(kAnna, kAdminBackup, "Vor dem Tausch", data), "OK");
  EXPECT_EQ(Query("SELECT backup_index, backup_order, backup_type, backup_size, backup_name, "
                  "backup_time FROM tbl_kdx_backup ORDER BY backup_order"),
            "1|1|2|1000|Vor dem Tausch|2027-03-01-09-05-03$"
            "1|2|2|1000|Vor dem Tausch|2027-03-01-09-05-03$"
            "1|3|2|500|Vor dem Tausch|2027-03-01-09-05-03");
  EXPECT_TRUE(Logged("DBSetTokenBackupData (OK)"));

  ClearLog();
  EXPECT_EQ(Read(kAnna, "1", kAdminBackup), data);
  EXPECT_EQ(time_, "2027-03-01-09-05-03");
  // The statements are logged as built, the number glued to the "AND" after it.
  EXPECT_TRUE(Logged(std::string("{SELECT * FROM tbl_kdx_backup WHERE token_guid = '") + kAnna +
                     "' AND backup_index = 1AND backup_type = 2AND backup_order = 3}"));
  EXPECT_TRUE(Logged("DBGetTokenBackupData (OK)"));

  EXPECT_EQ(Read(kAnna, "2", kAdminBackup), "") << "no such index";
  EXPECT_EQ(Read(kAnna, "1", kClientBackup), "") << "no backup of that type";
  EXPECT_EQ(Read(kBert, "1", kAdminBackup), "") << "another token's";
  EXPECT_EQ(time_, "");
}

TEST_P(BackupsTest, EmptyAndOnePartBackups) {
  EXPECT_EQ(Save(kAnna, kAutomaticBackup, "leer", ""), "OK");
  EXPECT_EQ(Query("SELECT backup_order, backup_size FROM tbl_kdx_backup"), "1|0");
  EXPECT_EQ(Read(kAnna, "1", kAutomaticBackup), "");
  EXPECT_EQ(time_, "2027-03-01-09-05-03") << "the empty backup exists";

  const std::string exact(1000, '|');
  EXPECT_EQ(Save(kAnna, kAutomaticBackup, "voll", exact), "OK");
  EXPECT_EQ(Query("SELECT backup_index, backup_order, backup_size FROM tbl_kdx_backup "
                  "ORDER BY backup_index"),
            "1|1|1000$2|1|0");
  EXPECT_EQ(Read(kAnna, "1", kAutomaticBackup), exact);
}

TEST_P(BackupsTest, ClientBackupsStopAtTheirMaximumWhileAutomaticOnesRotate) {
  maxima_.client = 3;
  maxima_.automatic = 3;
  for (const char* name : {"c1", "c2", "c3"})
    EXPECT_EQ(Save(kAnna, kClientBackup, name, name), "OK");
  EXPECT_EQ(Save(kAnna, kClientBackup, "c4", "c4"), "TOOMUCH");
  EXPECT_EQ(Names(kAnna, kClientBackup), "c1$3$3|c2$3$2|c3$3$1")
      << "a refused save changes nothing";
  EXPECT_EQ(Save(kBert, kClientBackup, "b1", "b1"), "OK") << "the maximum is per token";

  for (const char* name : {"a1", "a2", "a3", "a4"}) {
    EXPECT_EQ(Save(kAnna, kAutomaticBackup, name, name), "OK");
  }
  EXPECT_EQ(Names(kAnna, kAutomaticBackup), "a2$1$3|a3$1$2|a4$1$1");
  EXPECT_EQ(Read(kAnna, "1", kAutomaticBackup), "a4");
  EXPECT_EQ(Read(kAnna, "3", kAutomaticBackup), "a2");

  // Rows are counted, not backups: one backup of three parts fills a maximum of three.
  maxima_.admin = 3;
  EXPECT_EQ(Save(kBert, kAdminBackup, "lang", std::string(2500, 'x')), "OK");
  EXPECT_EQ(Save(kBert, kAdminBackup, "kurz", "x"), "TOOMUCH");
  // A type without a maximum is refused.
  EXPECT_EQ(Save(kBert, 5, "fünf", "x"), "TOOMUCH");
}

TEST_P(BackupsTest, DeletingRenumbersThatTypeAcrossAllTokens) {
  MustExecute(
      {"INSERT INTO tbl_kdx_token VALUES ('" + std::string(kAnna) + "','Anna','','','','','','')",
       "INSERT INTO tbl_kdx_token VALUES ('" + std::string(kBert) + "','Bert','','','','','','')"});
  for (const char* name : {"a3", "a2", "a1"})
    EXPECT_EQ(Save(kAnna, kAdminBackup, name, name), "OK");
  for (const char* name : {"b3", "b2", "b1"})
    EXPECT_EQ(Save(kBert, kAdminBackup, name, name), "OK");
  EXPECT_EQ(Save(kBert, kAutomaticBackup, "auto", "auto"), "OK");
  EXPECT_EQ(Save(kBert, kAutomaticBackup, "auto", "auto"), "OK");

  EXPECT_EQ(DBDeleteTokenBackupData(db(), kAnna, "2", kAdminBackup), "OK");
  EXPECT_EQ(Names(kAnna, kAdminBackup), "a1$2$1|a3$2$2");
  // Bert's backups of that type above 2 move down too, deliberately: b3 joins b2 at index 2.
  EXPECT_EQ(Names(kBert, kAdminBackup), "b1$2$1|b2$2$2|b3$2$2");
  EXPECT_EQ(Names(kBert, kAutomaticBackup), "auto$1$1|auto$1$2") << "other types stay";

  EXPECT_EQ(Names(kBert, kAllBackupTypes), "auto$1$1|auto$1$2|b1$2$1|b2$2$2|b3$2$2");
  EXPECT_EQ(Names("", kAutomaticBackup),
            std::string(kBert) + "$auto$1$1$Bert|" + kBert + "$auto$1$2$Bert");
  const std::string all = DBGetTokenBackupNames(db(), "", kAllBackupTypes);
  EXPECT_EQ(Occurrences(all, "\r\n"), 6) << all;
  EXPECT_NE(all.find(std::string(kAnna) + "$a3$2$2$Anna"), std::string::npos) << all;
  EXPECT_EQ(DBGetTokenBackupNames(db(), kAnna, kClientBackup), "");
}

TEST_P(BackupsTest, AMissingPartReadsNotFoundFollowedByTheLaterParts) {
  const std::string data = std::string(1000, 'a') + std::string(1000, 'b') + "cc";
  EXPECT_EQ(Save(kAnna, kAdminBackup, "n", data), "OK");
  MustExecute({"DELETE FROM tbl_kdx_backup WHERE backup_order = 2"});
  // Two rows are left, so the parts 1 and 2 are asked for; part 3 is never reached.
  EXPECT_EQ(Read(kAnna, "1", kAdminBackup), "NOTFOUND");
  MustExecute({"DELETE FROM tbl_kdx_backup WHERE backup_order = 1"});
  MustExecute({"UPDATE tbl_kdx_backup SET backup_order = 2 WHERE backup_order = 3"});
  EXPECT_EQ(Read(kAnna, "1", kAdminBackup), "NOTFOUND") << "a missing part 1";
  EXPECT_EQ(Save(kAnna, kAdminBackup, "m", data), "OK");
  MustExecute(
      {"UPDATE tbl_kdx_backup SET backup_order = 4 WHERE backup_order = 2 "
       "AND backup_index = 1"});
  MustExecute({"INSERT INTO tbl_kdx_backup VALUES ('" + std::string(kAnna) +
               "','m',1,9,2,0,'','2027-03-01-09-05-03')"});
  // Rows 1, 3, 4 and 9 make four: part 2 is missing, parts 3 and 4 follow the marker.
  EXPECT_EQ(Read(kAnna, "1", kAdminBackup),
            "NOTFOUND" + std::string("cc") + std::string(1000, 'b'));
}

TEST_P(BackupsTest, AnyBytesOfAnyLengthReadBackAsStored) {
  std::mt19937 random(2027);
  for (const int32_t part_size : {1, 7, 255, 1000}) {
    SetPartSize(part_size);
    const size_t longest = part_size == 1 ? 40 : 3000;
    for (size_t size :
         {size_t{0}, size_t{1}, size_t(part_size) - 1, size_t(part_size), size_t(part_size) + 1,
          std::uniform_int_distribution<size_t>(0, longest)(random)}) {
      if (size > longest) continue;
      const std::string data = RandomBytes(random, size);
      ASSERT_EQ(Save(kAnna, kAutomaticBackup, "p", data), "OK") << part_size << " " << size;
      ASSERT_EQ(Read(kAnna, "1", kAutomaticBackup), data) << part_size << " " << size;
    }
  }
}

TEST_P(BackupsTest, ABackupThatCannotBeWrittenWholeLeavesTheSeriesAsItWas) {
  EXPECT_EQ(Save(kAnna, kAdminBackup, "alt", "alt"), "OK");
  maxima_.automatic = 1;
  EXPECT_EQ(Save(kAnna, kAutomaticBackup, "auto", "gut"), "OK");
  // The engine refuses the data of every second part.
  if (GetParam() == Engine::kSqlite) {
    MustExecute(
        {"CREATE TRIGGER no_part_2 BEFORE UPDATE ON tbl_kdx_backup "
         "WHEN NEW.backup_order = 2 BEGIN SELECT RAISE(ABORT, 'part 2'); END"});
  } else if (GetParam() == Engine::kMariaDb) {
    MustExecute(
        {"CREATE TRIGGER no_part_2 BEFORE UPDATE ON tbl_kdx_backup FOR EACH ROW "
         "IF NEW.backup_order = 2 THEN SIGNAL SQLSTATE '45000' SET MESSAGE_TEXT = 'part 2'; "
         "END IF"});
  } else {
    MustExecute(
        {"CREATE FUNCTION no_part_2() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
         "IF NEW.backup_order = 2 THEN RAISE EXCEPTION 'part 2'; END IF; "
         "RETURN NEW; END $$",
         "CREATE TRIGGER no_part_2 BEFORE UPDATE ON tbl_kdx_backup "
         "FOR EACH ROW EXECUTE FUNCTION no_part_2()"});
  }
  EXPECT_EQ(Save(kAnna, kAdminBackup, "neu", std::string(2500, 'n')), "");
  EXPECT_EQ(Read(kAnna, "1", kAdminBackup), "alt") << "not the first part alone, not shifted";
  EXPECT_EQ(Read(kAnna, "2", kAdminBackup), "");
  // The rotation that would make room for the new automatic backup is undone with it.
  EXPECT_EQ(Save(kAnna, kAutomaticBackup, "neu", std::string(2500, 'n')), "");
  EXPECT_EQ(Read(kAnna, "1", kAutomaticBackup), "gut");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_backup"), "2");

  // A name the statement refuses fails before any part is written.
  EXPECT_EQ(Save(kAnna, kAutomaticBackup, "Anna's", "x"), "");
  EXPECT_TRUE(Logged("value holds a quote character"));
  EXPECT_EQ(Read(kAnna, "1", kAutomaticBackup), "gut");
}

KALVO_INSTANTIATE_ENGINES(BackupsTest);

}  // namespace
}  // namespace kalvo::testing
