// SQLite as the platform's utility library offers it: connections, statements and the columns of a result row.
//
// A connection and its statements belong to one thread at a time and must not be used across fork(2). In a process that
// has closed a standard stream, opening a database leaves /dev/null, for reading, under its number.
#ifndef MAVO_DATABASE_H
#define MAVO_DATABASE_H

#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace mavo {
namespace database {

// Thrown when a database cannot be used now though nothing says that it is damaged or absent: another program holds it,
// descriptors, memory or space are exhausted, the disk gave an error that may pass. On purpose no std::exception: who
// takes every failed opening for damage, and restores or deletes, lets this pass by untouched, and whoever called them
// is told and tries again later.
class __attribute__((visibility("default"))) Unavailable {
public:
    explicit Unavailable(const std::string &text);
    Unavailable(const Unavailable &) = default;
    Unavailable &operator=(const Unavailable &) = default;
    virtual ~Unavailable();

    // One line for a person, naming the file.
    const char *what() const noexcept { return text_.what(); }

private:
    std::runtime_error text_; // copies without throwing
};

// One open database file. What a statement has changed outlives a power cut once its execution has succeeded: rollback
// journal, in a mode whose end of a transaction is synchronised (persist), synchronous FULL. A busy time-out of 5
// seconds. Beside the file lie its journal, "<path>-journal", which stays, and "<path>-digest", which says how it was
// left.
class __attribute__((visibility("default"))) Connection {
public:
    // Opens `path` with SQLite's open flags (SQLITE_OPEN_READWRITE 2, SQLITE_OPEN_CREATE 4, SQLITE_OPEN_READONLY 1).
    // With `verify` the content is checked too, indexes included, unless the file is as it was left: what is not a
    // sound database is refused here. A database with a write-ahead log is taken out of it, or refused where it may
    // only be read; reading never makes or changes a file. Waits for others' locks. A journal that belongs to a file
    // that is gone, empty or refused is renamed, so that it is not played into another one.
    //
    // Throws mavo::Exception, with SQLite's message, for a file that is damaged, for one that is absent or empty and
    // not to be created, and for one that could not be read three times. Throws Unavailable for every other failure.
    Connection(const std::string &path, int flags, bool verify);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

private:
    friend class Statement;
    sqlite3 *handle;
};

// One column of the row that a statement stands on; valid until the statement is stepped or destroyed.
class __attribute__((visibility("default"))) Column {
public:
    // The value as SQLite converts it: the low 32 bits of an integer, 0 for text that is no number.
    int getInt() const;
    // The value as text, byte for byte; empty for NULL.
    std::string getText() const;

private:
    friend class Statement;
    Column(sqlite3_stmt *statement, int index);
    sqlite3_stmt *statement;
    int index;
};

// One prepared statement. The connection must outlive it.
class __attribute__((visibility("default"))) Statement {
public:
    // Throws mavo::Exception with SQLite's message when `sql` cannot be prepared.
    //
    // A connection's first "CREATE TABLE ..." is a part of opening: when nothing says that the file is damaged,
    // preparing and executing it throw Unavailable.
    Statement(Connection &connection, const std::string &sql);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    // Bind one parameter; `index` counts from 1. A parameter never bound is NULL. Throw mavo::Exception for an index
    // that the statement does not have.
    void bind(int index, int value);
    void bind(int index, long long value);
    void bind(int index, const std::string &value);

    // Goes to the next row; false when there is none left. Throws mavo::Exception when SQLite fails.
    bool step();
    // Runs the statement to its end. Throws nothing but what was said of the first table: false on failure, with the
    // text in getErrorMessage().
    bool exec();

    // Number of columns in a result row, 0 for a statement that gives no rows.
    int getColumnCount() const;
    // `index` counts from 0. Throws mavo::Exception for an index that the row does not have.
    Column getColumn(int index) const;
    // SQLite's text for the last failure on this statement's connection.
    std::string getErrorMessage() const;

private:
    sqlite3 *connection;
    sqlite3_stmt *statement;
};

} // namespace database
} // namespace mavo

#endif
