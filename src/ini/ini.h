/* ini.h - reads an INI file in one forward pass and hands each name/value pair to a handler.
 *
 * The interface is that of the inih library, so `#include <ini.h>` can mean either. This reader
 * exists because common builds of inih read files differently: they split lines at 200 bytes and
 * separate at the first of "=" and ":". How a file is read:
 *
 *  1. Lines are read in chunks of at most 1023 bytes, including the newline. The rest of a longer
 *     line counts as the next line; after exactly 1023 bytes, that is an empty line. A NUL byte
 *     ends the text of its chunk, and the rest of the chunk is lost.
 *  2. The bytes EF BB BF at the very start of the file are skipped.
 *  3. White space, as isspace() defines it, is trimmed from both ends of every line. A line that is
 *     then empty, or begins with ";" or "#", is ignored.
 *  4. A line with leading white space, while a name is pending, is a continuation: the handler gets
 *     the section, the pending name and the whole trimmed text, inline comment included. This holds
 *     even if the text looks like a header or a pair.
 *  5. "[name]" opens a section and clears the pending name. The section's name is not trimmed, is
 *     cut to 49 bytes and may be empty. Text after the "]" is ignored.
 *  6. Any other line is a pair. It separates at the first "=" before an inline comment, or else at
 *     the first ":" before it. Name and value are trimmed. The handler gets the whole name. From
 *     then on the name, cut to 49 bytes, is pending, whether or not the handler accepts the pair;
 *     after an empty name, none is pending.
 *  7. An inline comment begins at a ";" that follows white space. A ";" that is the first character
 *     of a value is text, and so is "#". There is no quoting and no escaping.
 *  8. A line is bad if it is a header without "]" before an inline comment, if it has no separator,
 *     or if the handler refuses it. The pass continues after it. A header or a pair that could not
 *     be read leaves section and pending name unchanged.
 *  9. Pairs before the first header have the section "".
 *
 * Threads: a pass shares no state, so passes may run concurrently, and a handler may start another
 * pass, even on the same file.
 */
#ifndef INI_H
#define INI_H

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per pair and continuation line, in file order, on the thread of ini_parse. The texts
 * are NUL-terminated, never null, and borrowed until the handler returns. Return non-zero to accept
 * the line, or 0 to count it as bad. An exception ends the pass, closes the file and leaves
 * ini_parse. */
typedef int (*ini_handler)(void* user, const char* section, const char* name, const char* value);

/* Reads the file and passes `user` on to `handler`; neither `filename` nor `handler` may be null.
 * Returns 0 if every line was good, -1 if the file cannot be opened, and otherwise the number of
 * the first bad line, counted from 1. A read error, such as on a directory, counts as the end of
 * the file. Throws std::bad_alloc if memory runs out. */
int ini_parse(const char* filename, ini_handler handler, void* user);

#ifdef __cplusplus
}
#endif

#endif
