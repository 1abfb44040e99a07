#include "invoicing/sqlite_db.h"

namespace {

// How long a connection waits for another process's write lock before it gives up.
constexpr int busy_timeout_ms = 30000;

} // namespace

Database::Database(const std::string& path, bool create)
{
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr);
    if (code != SQLITE_OK) {
        const std::string message = m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(code);
        sqlite3_close(m_db);
        m_db = nullptr;
        throw DatabaseError("cannot open " + path + ": " + message, code & 0xff);
    }
    sqlite3_extended_result_codes(m_db, 0);
    sqlite3_busy_timeout(m_db, busy_timeout_ms);
}

Database::~Database()
{
    sqlite3_close(m_db);
}

void Database::fail(const char* what, int code) const
{
    throw DatabaseError(std::string(what) + ": " + sqlite3_errmsg(m_db), code & 0xff);
}

void Database::execute(const std::string& sql, const char* what)
{
    const int code = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        fail(what, code);
}

std::optional<std::int64_t> Database::number(const std::string& sql, const char* what)
{
    Statement statement(*this, sql.c_str(), what);
    if (!statement.step())
        return std::nullopt;
    return statement.number(0);
}

Statement::Statement(Database& database, const char* sql, const char* what) : m_database(database), m_what(what)
{
    const int code = sqlite3_prepare_v2(database.get(), sql, -1, &m_statement, nullptr);
    if (code != SQLITE_OK)
        m_database.fail(what, code);
}

Statement::~Statement()
{
    sqlite3_finalize(m_statement);
}

Statement& Statement::bind(int index, const std::string& text)
{
    const int code = sqlite3_bind_text(m_statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    if (code != SQLITE_OK)
        m_database.fail(m_what, code);
    return *this;
}

Statement& Statement::bind(int index, std::int64_t number)
{
    const int code = sqlite3_bind_int64(m_statement, index, number);
    if (code != SQLITE_OK)
        m_database.fail(m_what, code);
    return *this;
}

Statement& Statement::bind(int index, const std::optional<std::int64_t>& number)
{
    return number ? bind(index, *number) : bind_null(index);
}

Statement& Statement::bind_null(int index)
{
    const int code = sqlite3_bind_null(m_statement, index);
    if (code != SQLITE_OK)
        m_database.fail(m_what, code);
    return *this;
}

bool Statement::step()
{
    const int code = sqlite3_step(m_statement);
    if (code == SQLITE_ROW)
        return true;
    if (code == SQLITE_DONE)
        return false;
    sqlite3_reset(m_statement);
    m_database.fail(m_what, code);
}

void Statement::run()
{
    while (step()) {
    }
}

void Statement::reset()
{
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
}

std::string Statement::text(int column) const
{
    const unsigned char* text = sqlite3_column_text(m_statement, column);
    return text == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(text),
                                                         static_cast<size_t>(sqlite3_column_bytes(m_statement, column)));
}

std::int64_t Statement::number(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

std::optional<std::int64_t> Statement::optional_number(int column) const
{
    if (sqlite3_column_type(m_statement, column) == SQLITE_NULL)
        return std::nullopt;
    return number(column);
}

Transaction::Transaction(Database& database) : m_database(database)
{
    m_database.execute("BEGIN IMMEDIATE", "cannot start a transaction of the ledger");
}

Transaction::~Transaction()
{
    if (m_open)
        sqlite3_exec(m_database.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit()
{
    m_database.execute("COMMIT", "cannot write to the ledger");
    m_open = false;
}
