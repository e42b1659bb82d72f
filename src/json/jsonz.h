// jsonz: a strict JSON validator for NUL-terminated text (RFC 8259 grammar).
//
// It only answers "is this one well-formed JSON value, and if not, where does it
// go wrong"; it builds nothing. It is meant to check every HTTP body before any
// real parsing, so it is a single pass over the bytes with no copies and no
// recursion: the kinds of the open containers are kept one bit per level in an
// explicit stack (the first 4096 levels inline, deeper levels in a heap vector),
// so any nesting depth costs one bit per level and never the call stack.
//
// What is accepted, and nothing more:
//   - values: object, array, string, number, true, false, null;
//   - whitespace between tokens: space, tab, LF, CR only (form feed, vertical
//     tab, NBSP, a byte order mark... are errors);
//   - numbers: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)? with no limit on
//     length or magnitude; no leading '+', no leading zeros, no NaN/Infinity;
//   - strings: raw bytes 0x00-0x1F are refused; escapes are \" \\ \/ \b \f \n
//     \r \t and \uXXXX with exactly four hex digits (either case). A \uXXXX
//     escape is accepted whatever code unit it names, lone surrogates included,
//     since the grammar allows it and nothing here decodes it;
//   - bytes >= 0x80 inside strings pass as they are: the grammar is checked
//     byte by byte and the encoding is left to whoever decodes the text. This
//     is the rule the library's own error-report writer follows (it copies such
//     bytes unchanged), so every report it writes validates here. Outside
//     strings only ASCII tokens exist, so any byte >= 0x80 there is an error;
//   - no trailing commas, no comments, no single quotes, no unquoted keys.
//     Duplicate keys are accepted (the grammar does not forbid them).
//
// The text is read strictly up to its terminating NUL and never past it; a NUL
// is always "end of text", also inside a string.
//
// Positions. On failure, Result::position is the first byte at which the text
// stops being the beginning of some valid JSON text: the ']' of "[1,]", the
// '1' of "01", the 'x' of "{} x", the NUL of an unfinished text. Inside a
// string that is the byte that breaks the escape ('x' of "\x", 'G' of
// "\u12G4").
// On success it is the byte just past the value (parseValue) or the NUL
// (validate).
//
// Which error for which fault:
//   errorValueExpected          a value was needed and the byte cannot start one
//                               ("", "[,1]", "{"a":}", "+1", ".5"); a malformed
//                               number or literal ("-", "1.", "1e+", "tru",
//                               "nul"), including one glued to a following
//                               letter, digit, '.', '+', '-' or '_' ("01",
//                               "1.2.3", "1-2", "truex", "123abc"); also the
//                               nesting stack could not get memory (the opening
//                               bracket is the position then).
//   errorDoubleQuoteExpected    an object key does not start with '"' ("{1:2}",
//                               "{'a':1}"), or the text ends inside a string
//                               (the position is the NUL).
//   errorCurlyBracketExpected   the text ends inside an object ("{", "{"a":1",
//                               "{"a"", "{"a":"), or ']' follows a member value.
//   errorSquareBracketExpected  the text ends inside an array ("[", "[1",
//                               "[1,"), or '}' follows an element. (A closing
//                               bracket where a value is due, as in "[}", is
//                               errorValueExpected.)
//   errorColonExpected          a key is not followed by ':' ("{"a" 1}").
//   errorCommaExpected          a value inside a container is followed by
//                               anything but ',', the matching closing bracket
//                               or the end of text ("[1 2]", "{"a":1 "b":2}").
//   errorInvalidStringSequence  a raw control byte 0x01-0x1F in a string, an
//                               unknown or incomplete escape.
//   errorTrailingComma          a ',' directly followed by the closing bracket
//                               ("[1,]", "{"a":1,}"); the position is the bracket.
//   errorTrailingChar           validate only: something other than whitespace
//                               follows the value ("{} x", "1 2").
// When the text ends between tokens inside a container, the innermost
// container decides the error, so an unfinished text reports what it would
// have needed to close; ended inside a string, it is errorDoubleQuoteExpected
// (errorInvalidStringSequence if an escape was cut), inside a number or
// literal errorValueExpected.
#pragma once

namespace ztsdlib {
namespace jsonz {

// Error numbers; they are part of the interface and are never renumbered.
enum Error : int {
    errorNone = 0,
    errorValueExpected = 1,
    errorDoubleQuoteExpected = 2,
    errorCurlyBracketExpected = 3,
    errorSquareBracketExpected = 4,
    errorColonExpected = 5,
    errorCommaExpected = 6,
    errorInvalidStringSequence = 7,
    errorTrailingComma = 8,
    errorTrailingChar = 9
};

struct Result {
    int error;             // an Error; errorNone when the text is valid
    const char* position;  // past the value on success, at the offending byte on failure
};

// Parses exactly one JSON value starting at `text`. No whitespace is skipped
// before the value (whitespace inside containers is), nor after it.
// `text` must be NUL-terminated.
Result parseValue(const char* text) noexcept;

// Validates a whole text: whitespace (tab, LF, CR, space), one value, whitespace,
// then the terminating NUL; anything else before the NUL is errorTrailingChar
// at that byte.
Result validate(const char* text) noexcept;

// "jsonz_errorValueExpected" ... "jsonz_errorTrailingChar" for 1..9, "unknown"
// for any other number, errorNone included.
const char* errorName(int error) noexcept;

}  // namespace jsonz
}  // namespace ztsdlib
