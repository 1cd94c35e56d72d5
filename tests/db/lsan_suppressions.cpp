// Leaks inside third-party ODBC drivers that the tests cannot avoid: the PostgreSQL driver
// keeps 8 bytes of every physical connection it opens, and the SQLite connections that the
// driver manager's pool still holds when the process ends are reported from inside the SQLite
// driver (the connections the server keeps open go back to that pool when it ends), and the
// driver manager leaks its character-set converters for every connection handle it frees. The
// same list is tests/lsan.supp, which the test command gives every process of the ASan run. Read by
// LeakSanitizer in sanitizer builds; unused otherwise.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:psqlodbca.so\nleak:libsqlite3odbc.so\nleak:libodbc.so\n";
}
