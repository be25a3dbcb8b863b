/* ini.h - reads an INI file in one forward pass and hands each name/value pair to a handler.
 *
 * The interface is the one of the inih library, so that either can stand behind `#include <ini.h>`.
 * This reader exists because common builds of inih read other files: they split lines at 200 bytes
 * and take the first of "=" and ":" for the separator. How a file is read:
 *
 *  1. Lines are read in chunks of at most 1023 bytes, their newline included. The rest of a longer
 *     line is the next line and counts as one; behind exactly 1023 bytes that is an empty line. A
 *     NUL byte ends the text of its chunk; what is behind it, up to the end of the chunk, is lost.
 *  2. The bytes EF BB BF at the very start of the file are skipped.
 *  3. White space is what isspace() says. It is cut from both ends of every line. A line that is
 *     then empty, or begins with ";" or "#", is ignored.
 *  4. A line with leading white space, while a name is pending, is a continuation: the handler gets
 *     the section, the pending name and the whole trimmed text, inline comment included. It does so
 *     even if the text looks like a header or a pair.
 *  5. "[name]" opens a section. The name is not trimmed, is cut to 49 bytes and may be empty; text
 *     behind the "]" is ignored. No name is pending any more.
 *  6. Any other line is a pair. The separator is the first "=" in front of an inline comment, or
 *     the first ":" in front of it if there is no such "=". Name and value are trimmed. The name
 *     reaches the handler whole and is pending from then on, cut to 49 bytes; an empty name leaves
 *     none pending. Whether the handler accepts the pair does not matter for that.
 *  7. An inline comment begins at a ";" that follows white space. One that is the first character
 *     of a value is text, as is "#". There is no quoting and no escaping.
 *  8. A line is bad if it is a header without "]" in front of an inline comment, has no separator,
 *     or if the handler refuses it. The pass goes on behind it; a header or a pair that could not
 *     be read leaves section and pending name as they were.
 *  9. Pairs in front of the first header have the section "".
 *
 * Threads: a pass keeps its state to itself, so passes may run at the same time and a handler may
 * start another one, on the same file too.
 */
#ifndef INI_H
#define INI_H

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per pair and continuation line, in file order, on the thread of ini_parse. The texts
 * are NUL-terminated, never null, and borrowed until the handler returns. Non-zero accepts the
 * line, 0 makes it count as bad. An exception ends the pass and leaves ini_parse, with the file
 * closed. */
typedef int (*ini_handler)(void* user, const char* section, const char* name, const char* value);

/* Reads the file and passes `user` on to `handler`; neither `filename` nor `handler` may be null.
 * Returns 0 if every line was good, otherwise the number of the first bad line, counted from 1;
 * -1 if the file cannot be opened. What cannot be read further, a directory for one, ends there as
 * at the end of a file. Throws std::bad_alloc if memory runs out. */
int ini_parse(const char* filename, ini_handler handler, void* user);

#ifdef __cplusplus
}
#endif

#endif
