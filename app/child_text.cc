#include "app/child_text.h"

#include <unistd.h>

#include <cstring>

namespace Stavik {
namespace App {
namespace {

// Room for the numbers of the head and of every fragment a child formats itself.
constexpr size_t OWN_FRAGMENTS_MAX = 2048;
constexpr size_t DIGITS_MAX = 24;

// Decimal digits of value into the end of digits; returns where they start.
char* FormatNumber(int64_t value, char (&digits)[DIGITS_MAX])
{
    char* begin = digits + DIGITS_MAX;
    uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        *--begin = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) {
        *--begin = '-';
    }
    return begin;
}

} // namespace

ChildText::Piece::Piece(const char* text) : text_(text), length_(strlen(text)) {}

ChildText::Piece::Piece(const std::string& text) : text_(text.data()), length_(text.size()) {}

ChildText::Piece ChildText::Piece::Number(int64_t value)
{
    Piece piece;
    piece.number_ = value;
    return piece;
}

void ChildText::Prepare(const std::string& appName, size_t extra)
{
    appName_ = appName;
    buffer_.assign(appName.size() + extra + OWN_FRAGMENTS_MAX, '\0');
    headLength_ = 0;
    length_ = 0;
}

void ChildText::Begin(int64_t pid)
{
    length_ = 0;
    Add({"app=", appName_, ",pid=", Piece::Number(pid), ","});
    headLength_ = length_;
}

void ChildText::Add(std::initializer_list<Piece> pieces)
{
    size_t start = length_;
    for (const Piece& piece : pieces) {
        if (!Put(piece)) {
            length_ = start;
            return;
        }
    }
}

void ChildText::ClearFragments()
{
    length_ = headLength_;
}

void ChildText::Send(int fd) const
{
    if (fd == -1 || !HasFragments()) {
        return;
    }
    ssize_t ignored = write(fd, buffer_.data(), length_);
    (void)ignored;
}

bool ChildText::Put(const Piece& piece)
{
    char digits[DIGITS_MAX];
    const char* text = piece.text_;
    size_t length = piece.length_;
    if (text == nullptr) {
        text = FormatNumber(piece.number_, digits);
        length = static_cast<size_t>(digits + DIGITS_MAX - text);
    }
    if (buffer_.size() - length_ < length) {
        return false;
    }
    memcpy(buffer_.data() + length_, text, length);
    length_ += length;
    return true;
}

} // namespace App
} // namespace Stavik
