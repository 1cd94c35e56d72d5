// Leaks inside third-party ODBC drivers that the tests cannot avoid: the PostgreSQL driver
// keeps 8 bytes of every physical connection it opens. Read by LeakSanitizer in sanitizer
// builds; unused otherwise.
extern "C" const char* __lsan_default_suppressions() { return "leak:psqlodbca.so\n"; }
