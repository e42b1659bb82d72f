// CppJson: the owning handle of one parsed cJSON tree, and parse(), the one
// way the library turns JSON text into such a tree.
//
// All parsing is cJSON's. Element pointers taken from a document (members,
// array elements) are borrowed and live as long as the document; they are
// never freed separately. Deep nesting is refused by cJSON itself (its
// nesting limit, 1000 levels) as a parse failure, so no tree this layer holds
// is deeper than that, and deleting or printing one never runs out of stack.
#pragma once

#include <cjson/cJSON.h>

#include <string>

namespace ztjsonlh {

class CppJson {
public:
    CppJson() noexcept = default;
    // Takes ownership of a tree root (null is allowed).
    explicit CppJson(cJSON* root) noexcept : root_(root) {}
    ~CppJson() { reset(); }
    CppJson(CppJson&& other) noexcept : root_(other.root_) { other.root_ = nullptr; }
    CppJson& operator=(CppJson&& other) noexcept;
    CppJson(const CppJson&) = delete;
    CppJson& operator=(const CppJson&) = delete;

    // Deletes the whole tree; a no-op on an empty document.
    void reset() noexcept;
    cJSON* get() const noexcept { return root_; }
    // Gives up ownership of the tree without deleting it.
    cJSON* release() noexcept;
    explicit operator bool() const noexcept { return root_ != nullptr; }

private:
    cJSON* root_ = nullptr;
};

// Where the first \u0000 escape of a JSON text starts (a backslash that is
// not itself escaped, then "u0000"), or null when it has none. Backslashes
// occur only inside strings in valid JSON, so no other context is needed.
const char* findEscapedNul(const char* text) noexcept;

// Parses a NUL-terminated text (cJSON over its length plus the NUL). A null
// text or a text cJSON refuses (malformed, or nested deeper than cJSON's
// limit) raises -52005 "jsonErrorsInvalidJSON" with "ztsync_debug" details
// "message" and "offset" (the byte at which cJSON stopped). So does a text
// with a string holding an escaped NUL (\u0000): its strings become C
// strings in the tree, which would end at the NUL and silently name
// something else ("a\u0000b" read as "a"); "offset" is the escape's.
CppJson parse(const char* text);
inline CppJson parse(const std::string& text) { return parse(text.c_str()); }

}  // namespace ztjsonlh
