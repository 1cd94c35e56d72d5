// The database access object: where to connect (DSN, user, password), the column type
// settings of the schema, and the last-error fields of the most recent failed statement.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "db/odbc_handles.h"

namespace kalvo {

class Log;

// Connection parameters and the SQL type words of the schema. User and password are the
// plain texts (already decrypted).
struct DatabaseSettings {
  std::string dsn, user, password, string_type;
  int32_t string_max_size = 0;
  std::string number_type, blob_type;
  int32_t blob_max_size = 0;
  // Seconds a login or one statement may take (0 = no limit).
  int32_t timeout_seconds = 15;
};

// Holds what every DB* operation needs besides its arguments. `env` and `log` must outlive
// the Database and every connection made through it. Not thread-safe: each request that runs on
// a database worker has a copy of its own (copyable; the copy shares the environment and the
// log, which are thread-safe).
class Database {
 public:
  Database(OdbcEnvironment& env, Log& log, DatabaseSettings settings = {})
      : env_(env), log_(log), settings_(std::move(settings)) {}

  OdbcEnvironment& env() const { return env_; }
  Log& log() const { return log_; }

  // The local time that operations stamp their rows with; the system clock unless a test
  // set another.
  std::tm Now() const;
  void set_clock(std::function<std::tm()> clock) { clock_ = std::move(clock); }

  const DatabaseSettings& settings() const { return settings_; }
  void set_settings(DatabaseSettings settings) { settings_ = std::move(settings); }

  // The native error code and the diagnostic message of the most recent failed statement;
  // 0 and "" until one fails. Overwritten by every failing execute, never cleared.
  int32_t last_error_number() const { return last_error_number_; }
  const std::string& last_error_description() const { return last_error_description_; }
  void SetLastError(int32_t number, std::string description) {
    last_error_number_ = number;
    last_error_description_ = std::move(description);
  }

 private:
  OdbcEnvironment& env_;
  Log& log_;
  DatabaseSettings settings_;
  std::function<std::tm()> clock_;
  int32_t last_error_number_ = 0;
  std::string last_error_description_;
};

}  // namespace kalvo
