/* shquote.h - quotes, unquotes and splits text by a subset of the rules of the POSIX shell.
 *
 * The module exports the four functions below under these unmangled names. This header compiles as
 * C11 and C++20.
 *
 * Cursors and counts
 *
 *  - Texts are bytes with an explicit length. Input needs no NUL terminator and is never read past
 *    its length. Output gets no terminator, except the words of c_shquote_parse_argv.
 *  - An output is a cursor and its room: the address of a pointer to the next byte to write, and
 *    the address of the count of bytes that may be written from there. The input of
 *    c_shquote_parse_next is such a pair too. Success advances the pair by what was written or
 *    read, so calls can follow one another on the same pair.
 *  - Any result but 0 leaves the caller's cursors, counts and results unchanged, but bytes of the
 *    output buffer after the cursor may have been overwritten.
 *  - A pointer to bytes may be null only if its count is 0. Input, output and the pairs themselves
 *    must not overlap.
 *
 * Rules of quoting
 *
 *  - '...'   Every byte up to the next ' is literal, even a backslash.
 *  - "..."   A backslash before ", $, \, ` or a newline is removed and that byte stays, so an
 *            escaped newline is kept here. Before any other byte the backslash stays too. $ and `
 *            have no meaning of their own.
 *  - \       Outside quotes, a backslash is removed and the next byte is literal, except that a
 *            newline is removed with it. As the last byte of the input it is dropped.
 *  - Adjacent quoted and bare pieces belong to the same token: a"b"'c' is abc.
 *
 * Rules of splitting
 *
 *  - Only space, tab and newline separate tokens. Carriage return, vertical tab, form feed and NUL
 *    are ordinary bytes.
 *  - A # where a token could start opens a comment, up to the next newline or the end of the input.
 *    Within a token it is an ordinary byte.
 *  - A pair of quotes makes a token, even an empty one. An escape that yields no byte neither makes
 *    a token nor ends one.
 *
 * Errors are returned; nothing is logged or thrown. Besides 0 and the codes below, a function may
 * return a negated errno value: -12 (ENOMEM) if it allocates, and -131 (ENOTRECOVERABLE) if one of
 * its own assumptions fails, which is a bug in this library.
 *
 * Threads: all functions are reentrant. They touch only their arguments and the heap.
 */
#ifndef SHQUOTE_H
#define SHQUOTE_H

#include <stddef.h>

#define SHQUOTE_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define SHQUOTE_NOEXCEPT noexcept
extern "C" {
#else
#define SHQUOTE_NOEXCEPT
#endif

enum {
  SHQUOTE_ERR_NO_ROOM = 1,      /* the output room is too small */
  SHQUOTE_ERR_UNTERMINATED = 2, /* the input ends within quotes or an escape inside them */
  SHQUOTE_ERR_END_OF_INPUT = 3, /* there is no further token */
  SHQUOTE_ERR_EMBEDDED_NUL = 4  /* a NUL byte in what is to become NUL-terminated words */
};

/* Writes the input as one token in single quotes, even if it needs none. Each ' of the input
 * becomes '\'' and every other byte is copied, so the output takes the input length, plus 2, plus 3
 * for each '.
 *
 * Allocates nothing. Returns 0 or SHQUOTE_ERR_NO_ROOM. */
SHQUOTE_EXPORT int c_shquote_quote(char** out, size_t* room, const char* in,
                                   size_t length) SHQUOTE_NOEXCEPT;

/* Removes one level of quoting from the whole input. White space and # are ordinary bytes here, and
 * nothing is split. The output is never longer than the input.
 *
 * Allocates nothing. Returns 0, SHQUOTE_ERR_NO_ROOM or SHQUOTE_ERR_UNTERMINATED. */
SHQUOTE_EXPORT int c_shquote_unquote(char** out, size_t* room, const char* in,
                                     size_t length) SHQUOTE_NOEXCEPT;

/* Reads the next token and writes it unquoted; `room` decreases by its length. This consumes white
 * space and comments before the token, and the white space right after it: the input cursor then
 * points to the next token, to a comment or to the end. If there is no token, it consumes nothing.
 *
 * Allocates nothing. Returns 0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED or
 * SHQUOTE_ERR_END_OF_INPUT. */
SHQUOTE_EXPORT int c_shquote_parse_next(char** out, size_t* room, const char** in,
                                        size_t* length) SHQUOTE_NOEXCEPT;

/* Splits the whole input into an array of NUL-terminated words, ended by a null pointer, and counts
 * the words. The array and its words are one block. The caller owns it and frees the array, even if
 * it holds no words. On failure there is nothing to free.
 *
 * Makes two allocations, however many words there are. Returns 0, SHQUOTE_ERR_UNTERMINATED,
 * SHQUOTE_ERR_EMBEDDED_NUL (for a NUL byte anywhere, even in quotes or a comment) or -12. */
SHQUOTE_EXPORT int c_shquote_parse_argv(char*** words, size_t* count, const char* in,
                                        size_t length) SHQUOTE_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* SHQUOTE_H */
