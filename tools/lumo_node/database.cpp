#include "tools/lumo_node/database.h"

#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

namespace lumo::node {
namespace {

constexpr int kStepsBetweenChecks = 10000;
constexpr std::size_t kMarkRoom = 64;  // the line that says how much was cut
constexpr int kPrimaryCode = 0xFF;     // the rest of an extended code is a detail

std::string Escaped(const char* text, int size) {
  std::string out;
  for (int i = 0; i < size; ++i) {
    switch (text[i]) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        out += text[i];
    }
  }
  return out;
}

std::string BlobText(const unsigned char* bytes, int size) {
  std::string out = "X'";
  for (int i = 0; i < size; ++i) {
    std::array<char, 4> hex;
    std::snprintf(hex.data(), hex.size(), "%02X", static_cast<unsigned>(bytes[i]));
    out += hex.data();
  }
  return out + '\'';
}

std::string ColumnText(sqlite3_stmt* statement, int column) {
  const int type = sqlite3_column_type(statement, column);
  if (type == SQLITE_NULL) return "\\N";
  if (type == SQLITE_BLOB) {
    const void* const bytes = sqlite3_column_blob(statement, column);
    return BlobText(static_cast<const unsigned char*>(bytes),
                    sqlite3_column_bytes(statement, column));
  }
  const unsigned char* const text = sqlite3_column_text(statement, column);
  return Escaped(reinterpret_cast<const char*>(text), sqlite3_column_bytes(statement, column));
}

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

}  // namespace

// Collects rows as long as they fit, with room left for the line that says that some did not.
class RowText {
 public:
  explicit RowText(std::size_t maxText) : maxText_(maxText) {}

  void Add(const std::string& row) {
    ++total_;
    if (cut_) return;
    const std::string separated = total_ > 1 ? '\n' + row : row;
    if (text_.size() + separated.size() > maxText_) {
      cut_ = true;
      return;
    }
    text_ += separated;
    ++kept_;
    if (text_.size() + kMarkRoom <= maxText_) safe_ = {text_.size(), kept_};
  }

  QueryResult Take() {
    if (cut_) {
      text_.resize(safe_.first);
      kept_ = safe_.second;
      if (kept_) text_ += '\n';
      text_ += "[cut after " + std::to_string(kept_) + " of " + std::to_string(total_) + " rows]";
    }
    return {.Code = 0, .Text = std::move(text_), .Rows = kept_};
  }

 private:
  const std::size_t maxText_;
  std::string text_;
  int kept_ = 0, total_ = 0;
  bool cut_ = false;
  std::pair<std::size_t, int> safe_{0, 0};  // size and rows behind which the line still fits
};

Database::Database(const std::string& fileName, std::function<bool()> stopRequested)
    : stopRequested_(std::move(stopRequested)) {
  if (sqlite3_open(fileName.c_str(), &database_) != SQLITE_OK) {
    const std::string reason = sqlite3_errmsg(database_);
    sqlite3_close(database_);
    throw std::runtime_error("the database " + fileName + " cannot be opened: " + reason);
  }
  const auto check = [](void* self) {
    return static_cast<Database*>(self)->stopRequested_() ? 1 : 0;
  };
  sqlite3_progress_handler(database_, kStepsBetweenChecks, check, this);
}

Database::~Database() { sqlite3_close(database_); }

QueryResult Database::Error(int code) const {
  return {.Code = code & kPrimaryCode, .Text = sqlite3_errmsg(database_), .Rows = 0};
}

int Database::RunStatement(sqlite3_stmt* statement, RowText* rows) {
  for (;;) {
    const int code = sqlite3_step(statement);
    if (code != SQLITE_ROW) return code == SQLITE_DONE ? SQLITE_OK : code;
    std::string row;
    for (int i = 0; i < sqlite3_column_count(statement); ++i)
      row += (i ? "\t" : "") + ColumnText(statement, i);
    rows->Add(row);
  }
}

QueryResult Database::Run(const std::string& sql, std::size_t maxText) {
  RowText rows(maxText);
  const char* rest = sql.c_str();
  while (*rest) {
    sqlite3_stmt* raw = nullptr;
    int code = sqlite3_prepare_v2(database_, rest, -1, &raw, &rest);
    if (code != SQLITE_OK) return Error(code);
    const std::unique_ptr<sqlite3_stmt, Finalize> statement(raw);
    if (!statement) continue;  // a comment or blanks
    code = RunStatement(statement.get(), &rows);
    if (code != SQLITE_OK) return Error(code);
  }
  return rows.Take();
}

}  // namespace lumo::node
