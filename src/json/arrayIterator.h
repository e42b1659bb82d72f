// ArrayIterator: a position inside a cJSON array node, following the
// elements' sibling links. A null position is the end.
//
//   for (cJSON* element : ztjsonlh::elementsOf(array)) ...
//
// begin() and end() check that the node is an array (-52004
// "jsonErrorsNotAnArray" otherwise). Dereferencing at the end raises -52006
// "jsonErrorsArrayItemOutOfBounds"; advancing at the end stays at the end.
// Elements are borrowed from the tree.
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>
#include <iterator>

#include "errors/exception.h"
#include "json/cjsonUtils.h"

namespace ztjsonlh {

class ArrayIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = cJSON*;
    using difference_type = std::ptrdiff_t;
    using pointer = cJSON* const*;
    using reference = cJSON*;

    static ArrayIterator begin(const cJSON* array) {
        checkIsArray(array);
        return ArrayIterator(array->child);
    }
    static ArrayIterator end(const cJSON* array) {
        checkIsArray(array);
        return ArrayIterator(nullptr);
    }

    cJSON* operator*() const {
        if (!current_) {
            zterr::raise(ZTERR_SITE_AT("ztjsonlh/ArrayIterator", 102, zterr::name::jsonErrorsArrayItemOutOfBounds),
                         zterr::code::jsonErrorsArrayItemOutOfBounds, "ztsync_debug",
                         {{"message", "Array iterator dereferenced past the last element."}});
        }
        return current_;
    }
    ArrayIterator& operator++() noexcept {
        if (current_) current_ = current_->next;
        return *this;
    }
    ArrayIterator operator++(int) noexcept {
        ArrayIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const ArrayIterator& other) const noexcept { return current_ == other.current_; }
    bool operator!=(const ArrayIterator& other) const noexcept { return current_ != other.current_; }

private:
    explicit ArrayIterator(cJSON* current) noexcept : current_(current) {}
    cJSON* current_;
};

// The elements of an array node as a range for range-based for.
class ArrayRange {
public:
    explicit ArrayRange(const cJSON* array) : begin_(ArrayIterator::begin(array)), end_(ArrayIterator::end(array)) {}
    ArrayIterator begin() const noexcept { return begin_; }
    ArrayIterator end() const noexcept { return end_; }

private:
    ArrayIterator begin_;
    ArrayIterator end_;
};

inline ArrayRange elementsOf(const cJSON* array) { return ArrayRange(array); }

}  // namespace ztjsonlh
