#include "lib/message_codec.h"

#include <cstring>
#include <stdexcept>

namespace lumo {
namespace {

constexpr std::size_t kFixedPart = 52, kTrailerSize = 48, kAstIndAt = 12;
constexpr std::size_t kCommandSize = 4, kNodeSize = 8, kMaxString = 0xFFFF;

class Writer {
 public:
  template <class T>
  void Number(T value) {
    out_.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  void Bytes(const std::uint8_t* bytes, std::size_t size) {
    out_.append(reinterpret_cast<const char*>(bytes), size);
  }
  void Field(const std::string& text, std::size_t size) {
    if (text.size() > size) throw std::length_error("text is too long for its field: " + text);
    out_.append(text).append(size - text.size(), '\0');
  }
  void Counted(const std::string& text) {
    if (text.size() > kMaxString) throw std::length_error("counted string is too long");
    Number(static_cast<std::uint16_t>(text.size()));
    out_.append(text).append(text.size() % 2, '\0');
  }
  std::string Take() { return std::move(out_); }

 private:
  std::string out_;
};

class Reader {
 public:
  explicit Reader(std::string_view in) : in_(in) {}
  template <class T>
  void Number(T* value) {
    Copy(value, sizeof *value);
  }
  void Copy(void* to, std::size_t size) {
    const std::string_view bytes = Take(size);
    if (bytes.size() == size) std::memcpy(to, bytes.data(), size);
  }
  std::string Text(std::size_t size) { return std::string(Take(size)); }
  std::string Counted(bool padded) {
    std::uint16_t count = 0;
    Number(&count);
    std::string text = Text(count);
    if (padded) Take(count % 2);
    return text;
  }
  bool Whole() const { return good_ && in_.empty(); }

 private:
  std::string_view Take(std::size_t size) {
    if (!good_ || size > in_.size()) {
      good_ = false;
      return {};
    }
    const std::string_view taken = in_.substr(0, size);
    in_.remove_prefix(size);
    return taken;
  }
  std::string_view in_;
  bool good_ = true;
};

void WriteControlBlock(const Message& message, Writer* out) {
  out->Number(message.CodErr);
  out->Number(message.Prior);
  out->Number(message.NumChan);
  out->Bytes(message.Uninterpreted.data(), message.Uninterpreted.size());
  out->Field(message.Command, kCommandSize);
  out->Field(message.Node, kNodeSize);
  out->Number(message.RowId);
  out->Number(message.RowCount);
  out->Number(message.PrzExe);
  out->Number(message.SysErr);
  out->Number(message.LnBufRow);
  out->Number(message.DbcApiCode);
}

void ReadControlBlock(Reader* in, Message* message) {
  in->Number(&message->CodErr);
  in->Number(&message->Prior);
  in->Number(&message->NumChan);
  in->Copy(message->Uninterpreted.data(), message->Uninterpreted.size());
  message->Command = in->Text(kCommandSize);
  message->Node = in->Text(kNodeSize);
  in->Number(&message->RowId);
  in->Number(&message->RowCount);
  in->Number(&message->PrzExe);
  in->Number(&message->SysErr);
  in->Number(&message->LnBufRow);
  in->Number(&message->DbcApiCode);
}

}  // namespace

std::int32_t Message::TrailerTaskName() const {
  std::int32_t taskName;
  std::memcpy(&taskName, Trailer.data(), sizeof taskName);
  return taskName;
}

void Message::SetTrailerTaskName(std::int32_t taskName) {
  std::memcpy(Trailer.data(), &taskName, sizeof taskName);
}

std::uint16_t Message::AstInd() const {
  std::uint16_t astInd;
  std::memcpy(&astInd, Trailer.data() + kAstIndAt, sizeof astInd);
  return astInd;
}

void Message::SetAstInd(std::uint16_t astInd) {
  std::memcpy(Trailer.data() + kAstIndAt, &astInd, sizeof astInd);
}

std::size_t EncodedSize(const Message& message) {
  std::size_t size = kFixedPart + kTrailerSize;
  for (const std::string& text : message.Strings) size += 2 + text.size() + text.size() % 2;
  return size;
}

std::string Encode(const Message& message, Lengths lengths) {
  const std::size_t size = EncodedSize(message);
  Writer out;
  out.Number(static_cast<std::uint32_t>(lengths == Lengths::Client ? size : size - 4));
  out.Number(message.TaskName);
  WriteControlBlock(message, &out);
  for (const std::string& text : message.Strings) out.Counted(text);
  out.Bytes(message.Trailer.data(), message.Trailer.size());
  return out.Take();
}

std::optional<Message> Decode(std::string_view frame, Layout layout) {
  Message message;
  Reader in(frame);
  std::uint32_t length = 0;
  in.Number(&length);
  in.Number(&message.TaskName);
  ReadControlBlock(&in, &message);
  for (std::size_t i = 0; i < message.Strings.size(); ++i)
    message.Strings[i] = in.Counted(layout == Layout::Ordinary || i + 1 < message.Strings.size());
  in.Copy(message.Trailer.data(), message.Trailer.size());
  if (!in.Whole()) return std::nullopt;
  return message;
}

std::string NodeText(const Message& message) {
  return message.Node.substr(0, message.Node.find_first_of(std::string_view(" \0", 2)));
}

}  // namespace lumo
