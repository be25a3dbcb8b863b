/* shquote-private.h - what c_shquote_unquote and c_shquote_parse_next share. It is declared here so
 * that a test can call it, and is not exported. The rules of shquote.h on cursors and counts apply.
 */
#ifndef SHQUOTE_PRIVATE_H
#define SHQUOTE_PRIVATE_H

#include <cstddef>

extern "C" {

/* Reads a text in double quotes, whose opening quote is the first byte of the input, and writes it
 * unquoted. On success the input cursor points just past the closing quote.
 *
 * Returns 0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED, or -131 if the input does not start
 * with a double quote. */
__attribute__((visibility("hidden"))) int c_shquote_copy_double_quoted(
    char** out, std::size_t* room, const char** in, std::size_t* length) noexcept;
}

#endif /* SHQUOTE_PRIVATE_H */
