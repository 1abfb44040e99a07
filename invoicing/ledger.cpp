#include "invoicing/ledger.h"

#include <openssl/evp.h>

#include <iterator>

#include "util/argentina_time.h"
#include "util/os_util.h"

namespace {

// "TARV": marks the file as a ledger, so that another program's database is never taken for one.
constexpr std::int64_t ledger_application_id = 0x54415256;

// The schema, one step per version; a ledger of version N gets steps N+1.. when opened.
const char* const schema_steps[] = {
    // 1: sales, each attempt to send one, and what the ledger knows of each series.
    "CREATE TABLE sales ("
    " sale_id TEXT PRIMARY KEY,"
    " cuit INTEGER NOT NULL, point_of_sale INTEGER NOT NULL, voucher_type INTEGER NOT NULL,"
    " number INTEGER, date TEXT NOT NULL DEFAULT '',"
    " voucher TEXT NOT NULL, digest TEXT NOT NULL,"
    " state TEXT NOT NULL CHECK (state IN ('pending', 'approved', 'rejected', 'failed')),"
    " result TEXT NOT NULL DEFAULT '', cae TEXT NOT NULL DEFAULT '', cae_expiry TEXT NOT NULL DEFAULT '',"
    " observations TEXT NOT NULL DEFAULT '[]', errors TEXT NOT NULL DEFAULT '[]', events TEXT NOT NULL DEFAULT '[]',"
    " recovered INTEGER NOT NULL DEFAULT 0, message TEXT NOT NULL DEFAULT '',"
    " created_at TEXT NOT NULL, updated_at TEXT NOT NULL);"
    // No two sales hold one number of a series.
    "CREATE UNIQUE INDEX sales_by_number ON sales (cuit, point_of_sale, voucher_type, number)"
    " WHERE number IS NOT NULL;"
    "CREATE INDEX sales_by_date ON sales (date);"
    "CREATE TABLE attempts ("
    " id INTEGER PRIMARY KEY, sale_id TEXT NOT NULL REFERENCES sales (sale_id),"
    " number INTEGER NOT NULL, date TEXT NOT NULL, started_at TEXT NOT NULL,"
    " finished_at TEXT, outcome TEXT NOT NULL DEFAULT '');"
    "CREATE INDEX attempts_by_sale ON attempts (sale_id);"
    "CREATE TABLE series ("
    " cuit INTEGER NOT NULL, point_of_sale INTEGER NOT NULL, voucher_type INTEGER NOT NULL,"
    " last_number INTEGER NOT NULL, learned_at TEXT NOT NULL,"
    " PRIMARY KEY (cuit, point_of_sale, voucher_type));",
    // 2: what AFIP's registry said of a CUIT, kept for a day.
    "CREATE TABLE registry ("
    " cuit INTEGER NOT NULL, service TEXT NOT NULL, person TEXT NOT NULL, asked_at INTEGER NOT NULL,"
    " PRIMARY KEY (cuit, service));",
    // 3: CAEA contingency: the codes granted, how each sale was authorised, what was informed.
    "CREATE TABLE caeas ("
    " cuit INTEGER NOT NULL, period INTEGER NOT NULL, fortnight INTEGER NOT NULL, caea TEXT NOT NULL,"
    " valid_from TEXT NOT NULL, valid_to TEXT NOT NULL, report_by TEXT NOT NULL, processed TEXT NOT NULL,"
    " PRIMARY KEY (cuit, period, fortnight));"
    "ALTER TABLE sales ADD COLUMN emission TEXT NOT NULL DEFAULT 'CAE';"
    "ALTER TABLE sales ADD COLUMN generated_at TEXT NOT NULL DEFAULT '';"
    "ALTER TABLE sales ADD COLUMN informed TEXT NOT NULL DEFAULT '';"
    "CREATE TABLE no_movement ("
    " cuit INTEGER NOT NULL, caea TEXT NOT NULL, point_of_sale INTEGER NOT NULL, declared_at TEXT NOT NULL,"
    " result TEXT NOT NULL, messages TEXT NOT NULL, PRIMARY KEY (cuit, caea, point_of_sale));",
};
constexpr std::int64_t schema_version = static_cast<std::int64_t>(std::size(schema_steps));

const char sale_columns[] =
    "sale_id, cuit, point_of_sale, voucher_type, number, date, voucher, digest, state, result, cae, cae_expiry,"
    " observations, errors, events, recovered, message, created_at, updated_at, emission, generated_at, informed";

struct StateName {
    SaleState state;
    const char* name;
};
const StateName state_names[] = {
    {SaleState::pending, "pending"},
    {SaleState::approved, "approved"},
    {SaleState::rejected, "rejected"},
    {SaleState::failed, "failed"},
};

SaleState state_of(const std::string& name)
{
    for (const StateName& entry : state_names)
        if (name == entry.name)
            return entry.state;
    throw LedgerError("the ledger holds a sale in an unknown state '" + name + "'");
}

SaleRecord read_sale(const Statement& row)
{
    SaleRecord sale;
    sale.sale_id = row.text(0);
    sale.series = {row.number(1), static_cast<int>(row.number(2)), static_cast<int>(row.number(3))};
    sale.number = row.optional_number(4);
    sale.date = row.text(5);
    sale.voucher = row.text(6);
    sale.digest = row.text(7);
    sale.state = state_of(row.text(8));
    sale.result = row.text(9);
    sale.cae = row.text(10);
    sale.cae_expiry = row.text(11);
    sale.observations = row.text(12);
    sale.errors = row.text(13);
    sale.events = row.text(14);
    sale.recovered = row.number(15) != 0;
    sale.message = row.text(16);
    sale.created_at = row.text(17);
    sale.updated_at = row.text(18);
    sale.emission = row.text(19);
    sale.generated_at = row.text(20);
    sale.informed = row.text(21);
    return sale;
}

std::string now_text()
{
    return format_argentina_time(wall_clock_now());
}

Statement& bind_series(Statement& statement, int first, const SeriesKey& series)
{
    return statement.bind(first, series.cuit)
        .bind(first + 1, static_cast<std::int64_t>(series.point_of_sale))
        .bind(first + 2, static_cast<std::int64_t>(series.voucher_type));
}

// What a failure of the database means for the user of the ledger.
std::string explain(const std::string& path, const DatabaseError& error)
{
    switch (error.code()) {
    case SQLITE_NOTADB:
        return path + " is not a ledger (not a SQLite database); it was left as it is";
    case SQLITE_CORRUPT:
        return "the ledger " + path + " is damaged (" + error.what() +
               "); it was left as it is: restore it from a copy";
    case SQLITE_FULL:
        return "the ledger " + path + " cannot grow: the disk is full (" + error.what() + ")";
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
        return "the ledger " + path + " cannot be written (" + error.what() + ")";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return "the ledger " + path + " stayed locked by another process (" + std::string(error.what()) + ")";
    default:
        return "the ledger " + path + " failed: " + error.what();
    }
}

Database open_database(const std::string& path)
{
    try {
        return Database(path, true);
    } catch (const DatabaseError& error) {
        throw LedgerError(explain(path, error));
    }
}

} // namespace

const char* sale_state_name(SaleState state)
{
    for (const StateName& entry : state_names)
        if (entry.state == state)
            return entry.name;
    return "unknown";
}

std::string sha256_hex(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

template <typename Action>
auto Ledger::guarded(const char*, Action action) -> decltype(action())
{
    try {
        return action();
    } catch (const DatabaseError& error) {
        throw LedgerError(explain(m_path, error));
    }
}

Ledger::Ledger(const std::string& path) : m_path(path), m_database(open_database(path))
{
    guarded("open", [&] {
        const std::int64_t version = m_database.number("PRAGMA user_version", "cannot read the ledger").value_or(0);
        const std::int64_t application = m_database.number("PRAGMA application_id", "cannot read the ledger").value_or(0);
        const std::int64_t tables =
            m_database.number("SELECT count(*) FROM sqlite_master", "cannot read the ledger").value_or(0);
        if (application != ledger_application_id && (tables > 0 || version > 0))
            throw LedgerError(path + " is a database of another program, not a ledger; it was left as it is");
        if (version > schema_version)
            throw LedgerError("the ledger " + path + " has schema version " + std::to_string(version) +
                              ", newer than this library's " + std::to_string(schema_version) +
                              ": use the library that wrote it, or a newer one");
        m_database.execute("PRAGMA journal_mode = WAL", "cannot set the ledger's journal");
        // An intent must outlive a power cut, not only a crash.
        m_database.execute("PRAGMA synchronous = FULL", "cannot set the ledger's synchronisation");
        if (version == schema_version)
            return;
        Transaction transaction(m_database);
        // Another process may have brought it up to date meanwhile.
        const std::int64_t now_version =
            m_database.number("PRAGMA user_version", "cannot read the ledger").value_or(0);
        for (std::int64_t step = now_version; step < schema_version; ++step)
            m_database.execute(schema_steps[step], "cannot update the ledger's schema");
        m_database.execute("PRAGMA application_id = " + std::to_string(ledger_application_id) +
                               "; PRAGMA user_version = " + std::to_string(schema_version),
                           "cannot update the ledger's schema");
        transaction.commit();
    });
}

std::optional<SaleRecord> Ledger::sale(const std::string& sale_id)
{
    return guarded("read", [&]() -> std::optional<SaleRecord> {
        Statement query(m_database, (std::string("SELECT ") + sale_columns + " FROM sales WHERE sale_id = ?").c_str(),
                        "cannot read a sale");
        query.bind(1, sale_id);
        if (!query.step())
            return std::nullopt;
        return read_sale(query);
    });
}

std::vector<SaleRecord> Ledger::pending_sales(const SeriesKey& series)
{
    return guarded("read", [&] {
        Statement query(m_database,
                        (std::string("SELECT ") + sale_columns +
                         " FROM sales WHERE cuit = ? AND point_of_sale = ? AND voucher_type = ? AND state = 'pending'"
                         " ORDER BY number")
                            .c_str(),
                        "cannot read the pending sales");
        bind_series(query, 1, series);
        std::vector<SaleRecord> sales;
        while (query.step())
            sales.push_back(read_sale(query));
        return sales;
    });
}

std::optional<SaleRecord> Ledger::sale_sent_with(const SeriesKey& series, std::int64_t number)
{
    return guarded("read", [&]() -> std::optional<SaleRecord> {
        Statement query(m_database,
                        (std::string("SELECT ") + sale_columns +
                         " FROM sales WHERE cuit = ? AND point_of_sale = ? AND voucher_type = ? AND state != 'approved'"
                         " AND sale_id IN (SELECT sale_id FROM attempts WHERE number = ?)"
                         " ORDER BY updated_at DESC LIMIT 1")
                            .c_str(),
                        "cannot read the sales sent with a number");
        bind_series(query, 1, series).bind(4, number);
        if (!query.step())
            return std::nullopt;
        return read_sale(query);
    });
}

std::vector<SaleAttempt> Ledger::attempts(const std::string& sale_id)
{
    return guarded("read", [&] {
        Statement query(m_database,
                        "SELECT number, date, started_at, coalesce(finished_at, ''), outcome FROM attempts"
                        " WHERE sale_id = ? ORDER BY id",
                        "cannot read the attempts");
        query.bind(1, sale_id);
        std::vector<SaleAttempt> attempts;
        while (query.step())
            attempts.push_back({query.number(0), query.text(1), query.text(2), query.text(3), query.text(4)});
        return attempts;
    });
}

std::optional<std::int64_t> Ledger::last_number(const SeriesKey& series)
{
    return guarded("read", [&]() -> std::optional<std::int64_t> {
        Statement query(m_database,
                        "SELECT last_number FROM series WHERE cuit = ? AND point_of_sale = ? AND voucher_type = ?",
                        "cannot read the last number of a series");
        bind_series(query, 1, series);
        if (!query.step())
            return std::nullopt;
        return query.number(0);
    });
}

void Ledger::set_last_number(const SeriesKey& series, std::int64_t number)
{
    guarded("write", [&] {
        Statement update(m_database,
                         "INSERT INTO series (cuit, point_of_sale, voucher_type, last_number, learned_at)"
                         " VALUES (?, ?, ?, ?, ?) ON CONFLICT (cuit, point_of_sale, voucher_type)"
                         " DO UPDATE SET last_number = excluded.last_number, learned_at = excluded.learned_at",
                         "cannot record the last number of a series");
        bind_series(update, 1, series).bind(4, number).bind(5, now_text()).run();
    });
}

void Ledger::record_intents(const std::vector<SaleRecord>& sales)
{
    guarded("write", [&] {
        Transaction transaction(m_database);
        const std::string now = now_text();
        Statement upsert(m_database,
                         "INSERT INTO sales (sale_id, cuit, point_of_sale, voucher_type, number, date, voucher, digest,"
                         " state, result, cae, cae_expiry, observations, errors, events, recovered, message,"
                         " created_at, updated_at)"
                         " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, 'pending', '', '', '', '[]', '[]', '[]', 0, '', ?9, ?9)"
                         " ON CONFLICT (sale_id) DO UPDATE SET cuit = ?2, point_of_sale = ?3, voucher_type = ?4,"
                         " number = ?5, date = ?6, voucher = ?7, digest = ?8, state = 'pending', result = '',"
                         " cae = '', cae_expiry = '', observations = '[]', errors = '[]', events = '[]',"
                         " recovered = 0, message = '', updated_at = ?9, emission = 'CAE', generated_at = '', informed = ''",
                         "cannot record a sale's intent");
        Statement attempt(m_database,
                          "INSERT INTO attempts (sale_id, number, date, started_at) VALUES (?, ?, ?, ?)",
                          "cannot record an attempt");
        for (const SaleRecord& sale : sales) {
            upsert.bind(1, sale.sale_id);
            bind_series(upsert, 2, sale.series).bind(5, sale.number).bind(6, sale.date).bind(7, sale.voucher);
            upsert.bind(8, sale.digest).bind(9, now).run();
            upsert.reset();
            attempt.bind(1, sale.sale_id).bind(2, sale.number.value_or(0)).bind(3, sale.date).bind(4, now).run();
            attempt.reset();
        }
        transaction.commit();
    });
}

void Ledger::record_outcomes(const std::vector<SaleRecord>& sales)
{
    guarded("write", [&] {
        Transaction transaction(m_database);
        const std::string now = now_text();
        Statement update(m_database,
                         "UPDATE sales SET number = ?2, date = ?3, state = ?4, result = ?5, cae = ?6, cae_expiry = ?7,"
                         " observations = ?8, errors = ?9, events = ?10, recovered = ?11, message = ?12, updated_at = ?13,"
                         " emission = ?14, generated_at = ?15, informed = ?16 WHERE sale_id = ?1",
                         "cannot record a sale's outcome");
        Statement close_attempt(m_database,
                                "UPDATE attempts SET finished_at = ?2, outcome = ?3 WHERE id ="
                                " (SELECT max(id) FROM attempts WHERE sale_id = ?1) AND finished_at IS NULL",
                                "cannot record an attempt's outcome");
        Statement raise_last(m_database,
                             "INSERT INTO series (cuit, point_of_sale, voucher_type, last_number, learned_at)"
                             " VALUES (?, ?, ?, ?, ?) ON CONFLICT (cuit, point_of_sale, voucher_type) DO UPDATE SET"
                             " last_number = max(last_number, excluded.last_number), learned_at = excluded.learned_at",
                             "cannot record the last number of a series");
        for (const SaleRecord& sale : sales) {
            update.bind(1, sale.sale_id).bind(2, sale.number).bind(3, sale.date).bind(4, sale_state_name(sale.state));
            update.bind(5, sale.result).bind(6, sale.cae).bind(7, sale.cae_expiry).bind(8, sale.observations);
            update.bind(9, sale.errors).bind(10, sale.events).bind(11, static_cast<std::int64_t>(sale.recovered));
            update.bind(12, sale.message).bind(13, now).bind(14, sale.emission).bind(15, sale.generated_at);
            update.bind(16, sale.informed).run();
            update.reset();
            close_attempt.bind(1, sale.sale_id).bind(2, now).bind(3, sale_state_name(sale.state)).run();
            close_attempt.reset();
            if (sale.state == SaleState::approved && sale.number) {
                bind_series(raise_last, 1, sale.series).bind(4, *sale.number).bind(5, now).run();
                raise_last.reset();
            }
        }
        transaction.commit();
    });
}

std::optional<std::string> Ledger::registry_answer(std::int64_t cuit, const std::string& service, std::int64_t not_before)
{
    return guarded("read", [&]() -> std::optional<std::string> {
        Statement query(m_database, "SELECT person FROM registry WHERE cuit = ? AND service = ? AND asked_at >= ?",
                        "cannot read the registry's answers");
        query.bind(1, cuit).bind(2, service).bind(3, not_before);
        if (!query.step())
            return std::nullopt;
        return query.text(0);
    });
}

void Ledger::keep_registry_answer(std::int64_t cuit, const std::string& service, const std::string& person,
                                  std::int64_t asked_at)
{
    guarded("write", [&] {
        Statement keep(m_database,
                       "INSERT INTO registry (cuit, service, person, asked_at) VALUES (?, ?, ?, ?)"
                       " ON CONFLICT (cuit, service) DO UPDATE SET person = excluded.person, asked_at = excluded.asked_at",
                       "cannot keep the registry's answer");
        keep.bind(1, cuit).bind(2, service).bind(3, person).bind(4, asked_at).run();
    });
}

void Ledger::keep_caea(const CaeaGrant& grant)
{
    guarded("write", [&] {
        Statement keep(m_database,
                       "INSERT INTO caeas (cuit, period, fortnight, caea, valid_from, valid_to, report_by, processed)"
                       " VALUES (?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (cuit, period, fortnight) DO UPDATE SET"
                       " caea = excluded.caea, valid_from = excluded.valid_from, valid_to = excluded.valid_to,"
                       " report_by = excluded.report_by, processed = excluded.processed",
                       "cannot keep a CAEA");
        keep.bind(1, grant.cuit).bind(2, static_cast<std::int64_t>(grant.period)).bind(3, static_cast<std::int64_t>(grant.fortnight));
        keep.bind(4, grant.code).bind(5, grant.valid_from).bind(6, grant.valid_to).bind(7, grant.report_by);
        keep.bind(8, grant.processed).run();
    });
}

namespace {

const char caea_columns[] = "cuit, period, fortnight, caea, valid_from, valid_to, report_by, processed";

CaeaGrant read_caea(const Statement& row)
{
    return {row.number(0),  static_cast<int>(row.number(1)), static_cast<int>(row.number(2)), row.text(3), row.text(4),
            row.text(5),    row.text(6),                     row.text(7)};
}

} // namespace

std::optional<CaeaGrant> Ledger::caea(std::int64_t cuit, int period, int fortnight)
{
    return guarded("read", [&]() -> std::optional<CaeaGrant> {
        Statement query(m_database,
                        (std::string("SELECT ") + caea_columns + " FROM caeas WHERE cuit = ? AND period = ? AND fortnight = ?").c_str(),
                        "cannot read the CAEAs");
        query.bind(1, cuit).bind(2, static_cast<std::int64_t>(period)).bind(3, static_cast<std::int64_t>(fortnight));
        if (!query.step())
            return std::nullopt;
        return read_caea(query);
    });
}

std::vector<CaeaGrant> Ledger::caeas(std::int64_t cuit)
{
    return guarded("read", [&] {
        Statement query(m_database,
                        (std::string("SELECT ") + caea_columns + " FROM caeas WHERE cuit = ? ORDER BY period, fortnight").c_str(),
                        "cannot read the CAEAs");
        query.bind(1, cuit);
        std::vector<CaeaGrant> grants;
        while (query.step())
            grants.push_back(read_caea(query));
        return grants;
    });
}

void Ledger::record_caea_sale(const SaleRecord& sale)
{
    guarded("write", [&] {
        Transaction transaction(m_database);
        const std::string now = now_text();
        Statement upsert(m_database,
                         "INSERT INTO sales (sale_id, cuit, point_of_sale, voucher_type, number, date, voucher, digest,"
                         " state, result, cae, cae_expiry, observations, errors, events, recovered, message,"
                         " created_at, updated_at, emission, generated_at, informed)"
                         " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, 'approved', 'A', ?9, '', '[]', '[]', '[]', 0, '', ?10, ?10,"
                         " 'CAEA', ?11, 'no')"
                         " ON CONFLICT (sale_id) DO UPDATE SET cuit = ?2, point_of_sale = ?3, voucher_type = ?4,"
                         " number = ?5, date = ?6, voucher = ?7, digest = ?8, state = 'approved', result = 'A', cae = ?9,"
                         " cae_expiry = '', observations = '[]', errors = '[]', events = '[]', recovered = 0,"
                         " message = '', updated_at = ?10, emission = 'CAEA', generated_at = ?11, informed = 'no'",
                         "cannot record a CAEA sale");
        upsert.bind(1, sale.sale_id);
        bind_series(upsert, 2, sale.series).bind(5, sale.number).bind(6, sale.date).bind(7, sale.voucher);
        upsert.bind(8, sale.digest).bind(9, sale.cae).bind(10, now).bind(11, sale.generated_at).run();
        Statement raise_last(m_database,
                             "INSERT INTO series (cuit, point_of_sale, voucher_type, last_number, learned_at)"
                             " VALUES (?, ?, ?, ?, ?) ON CONFLICT (cuit, point_of_sale, voucher_type) DO UPDATE SET"
                             " last_number = max(last_number, excluded.last_number), learned_at = excluded.learned_at",
                             "cannot record the last number of a series");
        bind_series(raise_last, 1, sale.series).bind(4, sale.number.value_or(0)).bind(5, now).run();
        transaction.commit();
    });
}

std::vector<SaleRecord> Ledger::sales_to_inform(std::int64_t cuit)
{
    return guarded("read", [&] {
        Statement query(m_database,
                        (std::string("SELECT ") + sale_columns +
                         " FROM sales WHERE cuit = ? AND emission = 'CAEA' AND informed = 'no'"
                         " ORDER BY point_of_sale, voucher_type, number")
                            .c_str(),
                        "cannot read the CAEA sales");
        query.bind(1, cuit);
        std::vector<SaleRecord> sales;
        while (query.step())
            sales.push_back(read_sale(query));
        return sales;
    });
}

void Ledger::record_no_movement(std::int64_t cuit, const std::string& caea, int point_of_sale, const std::string& result,
                                const std::string& messages)
{
    guarded("write", [&] {
        Statement keep(m_database,
                       "INSERT INTO no_movement (cuit, caea, point_of_sale, declared_at, result, messages)"
                       " VALUES (?, ?, ?, ?, ?, ?) ON CONFLICT (cuit, caea, point_of_sale) DO UPDATE SET"
                       " declared_at = excluded.declared_at, result = excluded.result, messages = excluded.messages",
                       "cannot record a declaration without movement");
        keep.bind(1, cuit).bind(2, caea).bind(3, static_cast<std::int64_t>(point_of_sale)).bind(4, now_text());
        keep.bind(5, result).bind(6, messages).run();
    });
}

std::vector<SaleRecord> Ledger::list(const LedgerFilter& filter)
{
    return guarded("read", [&] {
        Statement query(m_database,
                        (std::string("SELECT ") + sale_columns +
                         " FROM sales WHERE (?1 = '' OR date >= ?1) AND (?2 = '' OR date <= ?2)"
                         " AND (?3 IS NULL OR point_of_sale = ?3)"
                         " ORDER BY date, point_of_sale, voucher_type, number, created_at")
                            .c_str(),
                        "cannot list the sales");
        query.bind(1, filter.from_date).bind(2, filter.to_date);
        if (filter.point_of_sale)
            query.bind(3, static_cast<std::int64_t>(*filter.point_of_sale));
        else
            query.bind_null(3);
        std::vector<SaleRecord> sales;
        while (query.step())
            sales.push_back(read_sale(query));
        return sales;
    });
}
