#ifndef STAVIK_APP_CHILD_TEXT_H
#define STAVIK_APP_CHILD_TEXT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace Stavik {
namespace App {

// The text a child gathers between fork and exec: "app=<name>,pid=<pid>,"
// followed by one fragment per failing step, each ending in ";". The parent
// sizes the buffer; the child only copies bytes and formats numbers, so it
// needs no heap, no locale and no lock of the daemon's other threads.
class ChildText {
public:
    // One piece of a fragment: a text or a decimal number.
    class Piece {
    public:
        Piece(const char* text);
        Piece(const std::string& text);
        static Piece Number(int64_t value);

    private:
        friend class ChildText;
        Piece() = default;
        const char* text_ = nullptr;
        size_t length_ = 0;
        int64_t number_ = 0;
    };

    // Parent: the name for the head and room for every fragment a child can
    // gather, beside extra bytes of texts known only by their length.
    void Prepare(const std::string& appName, size_t extra);

    // Child, from here on.
    void Begin(int64_t pid);
    // A whole fragment, or nothing when it wouldn't fit: a fragment is never cut.
    void Add(std::initializer_list<Piece> pieces);
    void ClearFragments();
    bool HasFragments() const { return length_ > headLength_; }
    // One write of the whole text, unless there is no pipe or nothing to tell.
    // The pipe doesn't block: when it is full the text is lost, not the child.
    void Send(int fd) const;

private:
    bool Put(const Piece& piece);

    std::string appName_;
    std::vector<char> buffer_;
    size_t headLength_ = 0;
    size_t length_ = 0;
};

} // namespace App
} // namespace Stavik

#endif
