/* shquote.h - quotes, unquotes and splits text by a subset of the rules of the POSIX shell.
 *
 * The four functions below are part of the surface of the module that contains them: they are
 * exported under these plain names. They are plain C11 and C++20.
 *
 * Cursors and counts
 *
 *  - Texts are bytes with an explicit length. Input needs no NUL terminator and is never read past
 *    its length; output gets no terminator, except the words of c_shquote_parse_argv.
 *  - An output is a cursor and its room: the address of a pointer to the next byte to write, and
 *    the address of the count of bytes that may be written from there. The input of
 *    c_shquote_parse_next is such a pair as well. On success the pair has moved on by what was
 *    written or read, so calls can follow one another on the same pair.
 *  - On any result but 0, cursors, counts and results of the caller stay as they were. Bytes of the
 *    output buffer behind the cursor may have been overwritten all the same.
 *  - A pointer to bytes may be null only where its count is 0. Input, output and the pairs
 *    themselves must not overlap.
 *
 * Rules of quoting
 *
 *  - '...'   Every byte up to the next ' stands for itself, the backslash included.
 *  - "..."   A backslash in front of ", $, \, ` or a newline is taken away, and that byte stays: so
 *            an escaped newline is kept here. In front of any other byte the backslash stays too.
 *            $ and ` mean nothing by themselves.
 *  - \       Outside quotes it is taken away, and the next byte stands for itself. A newline is
 *            taken away with it. As the last byte of the input it is dropped.
 *  - Quoted and bare pieces that touch belong to the same token: a"b"'c' is abc.
 *
 * Rules of splitting
 *
 *  - Only space, tab and newline separate. Carriage return, vertical tab, form feed and NUL are
 *    ordinary bytes.
 *  - A # where a token could start opens a comment up to the next newline or the end of the input.
 *    Within a token it is an ordinary byte.
 *  - A pair of quotes makes a token even if it is empty. An escape that gives no byte makes none,
 *    but does not end one either.
 *
 * Errors are returned, nothing is logged, nothing is thrown. Besides 0 and the codes below a
 * function may return a negated errno value: -12 (ENOMEM) where it allocates, and -131
 * (ENOTRECOVERABLE) for a broken assumption of its own, which is a bug of this library.
 *
 * Threads: all functions are reentrant. They touch their arguments and the heap, nothing else.
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
  SHQUOTE_ERR_UNTERMINATED = 2, /* a quote is open, or an escape within double quotes has no end */
  SHQUOTE_ERR_END_OF_INPUT = 3, /* there is no further token */
  SHQUOTE_ERR_EMBEDDED_NUL = 4  /* a NUL byte where words are to be NUL-terminated */
};

/* Writes the input as one token in single quotes, also where it needs none. Each ' of the input
 * becomes '\'' and every other byte is copied, so that the output needs the input length, plus 2,
 * plus 3 for each '.
 *
 * Allocates nothing. Returns 0 or SHQUOTE_ERR_NO_ROOM. */
SHQUOTE_EXPORT int c_shquote_quote(char** out, size_t* room, const char* in,
                                   size_t length) SHQUOTE_NOEXCEPT;

/* Takes one level of quoting from the whole input. Word boundaries are of no concern: white space
 * and # are ordinary bytes. The output is never longer than the input.
 *
 * Allocates nothing. Returns 0, SHQUOTE_ERR_NO_ROOM or SHQUOTE_ERR_UNTERMINATED. */
SHQUOTE_EXPORT int c_shquote_unquote(char** out, size_t* room, const char* in,
                                     size_t length) SHQUOTE_NOEXCEPT;

/* Takes the next token from the input and writes it without its quoting. The length of the token is
 * the fall in `room`. White space and comments in front of it are consumed, and so is the run of
 * white space behind it: the input cursor then stands at the next token, at a comment or at the
 * end. Nothing is consumed if no token is found.
 *
 * Allocates nothing. Returns 0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED or
 * SHQUOTE_ERR_END_OF_INPUT. */
SHQUOTE_EXPORT int c_shquote_parse_next(char** out, size_t* room, const char** in,
                                        size_t* length) SHQUOTE_NOEXCEPT;

/* Splits the whole input into an array of NUL-terminated words with a null pointer behind the last,
 * and counts the words. The array and its words are one block, which the caller owns and releases
 * by one free of the array, also when it holds no words. On failure there is nothing to release.
 *
 * Makes two allocations, however many words there are. Returns 0, SHQUOTE_ERR_UNTERMINATED,
 * SHQUOTE_ERR_EMBEDDED_NUL (for a NUL byte anywhere, also in a quote or a comment) or -12. */
SHQUOTE_EXPORT int c_shquote_parse_argv(char*** words, size_t* count, const char* in,
                                        size_t length) SHQUOTE_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* SHQUOTE_H */
