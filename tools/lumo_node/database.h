// The embedded database behind the node.
#pragma once
#include <cstddef>
#include <functional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace lumo::node {

struct QueryResult {
  int Code = 0;      // 0, or the database's error code
  std::string Text;  // the rows, or the error's message
  int Rows = 0;      // rows in Text
};

class Database {
 public:
  // `stopRequested` is asked during long statements, which are then broken off.
  Database(const std::string& fileName, std::function<bool()> stopRequested);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Runs every statement of the text. The rows of all of them come as one text of at most
  // `maxText` bytes; rows beyond are counted, not kept, and a last line says so.
  QueryResult Run(const std::string& sql, std::size_t maxText);

 private:
  QueryResult Error(int code) const;
  int RunStatement(sqlite3_stmt* statement, class RowText* rows);

  sqlite3* database_ = nullptr;
  std::function<bool()> stopRequested_;
};

}  // namespace lumo::node
