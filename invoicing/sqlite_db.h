#ifndef TARVO_INVOICING_SQLITE_DB_H
#define TARVO_INVOICING_SQLITE_DB_H

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

// A failure of the database; the message says what was being done and what SQLite answered.
class DatabaseError : public std::runtime_error {
public:
    DatabaseError(const std::string& message, int code) : std::runtime_error(message), m_code(code) {}
    int code() const { return m_code; } // SQLite's primary result code
private:
    int m_code;
};

// One connection, closed in the destructor.
class Database {
public:
    // Opens or, with `create`, makes the file; throws DatabaseError.
    Database(const std::string& path, bool create);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    sqlite3* get() const { return m_db; }
    // Runs statements without results; throws DatabaseError naming `what`.
    void execute(const std::string& sql, const char* what);
    // The first column of the first row as a number, nullopt without a row.
    std::optional<std::int64_t> number(const std::string& sql, const char* what);

    [[noreturn]] void fail(const char* what, int code) const;

private:
    sqlite3* m_db = nullptr;
};

// One prepared statement, finalised in the destructor. Parameters bind by position from 1.
class Statement {
public:
    Statement(Database& database, const char* sql, const char* what);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, const std::string& text);
    Statement& bind(int index, std::int64_t number);
    Statement& bind(int index, const std::optional<std::int64_t>& number);
    Statement& bind_null(int index);
    // true while there is a row to read; throws DatabaseError.
    bool step();
    // Steps to the end, for statements without results.
    void run();
    void reset();

    std::string text(int column) const;
    std::int64_t number(int column) const;
    std::optional<std::int64_t> optional_number(int column) const;

private:
    Database& m_database;
    sqlite3_stmt* m_statement = nullptr;
    const char* m_what;
};

// BEGIN IMMEDIATE in the constructor (the write lock at once, so that the transaction never
// fails half-way for another writer), ROLLBACK in the destructor unless committed.
class Transaction {
public:
    explicit Transaction(Database& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Database& m_database;
    bool m_open = true;
};

#endif
