/* shquote-private.h - what c_shquote_unquote and c_shquote_parse_next share, apart from the
 * exported functions so that a test can reach it. Not exported. The rules on cursors and counts of
 * shquote.h hold here too.
 */
#ifndef SHQUOTE_PRIVATE_H
#define SHQUOTE_PRIVATE_H

#include <cstddef>

extern "C" {

/* Takes a text in double quotes, its opening quote being the first byte of the input, and writes it
 * without its quoting. The input cursor then stands behind the closing quote.
 *
 * Returns 0, SHQUOTE_ERR_NO_ROOM, SHQUOTE_ERR_UNTERMINATED, or -131 if the input does not start
 * with a double quote. */
__attribute__((visibility("hidden"))) int c_shquote_copy_double_quoted(
    char** out, std::size_t* room, const char** in, std::size_t* length) noexcept;
}

#endif /* SHQUOTE_PRIVATE_H */
