/* The functions, called from C. */
#include <stdlib.h>
#include <string.h>

#include "shquote/shquote.h"

_Static_assert(SHQUOTE_ERR_NO_ROOM == 1, "callers may compare with the number");
_Static_assert(SHQUOTE_ERR_UNTERMINATED == 2, "callers may compare with the number");
_Static_assert(SHQUOTE_ERR_END_OF_INPUT == 3, "callers may compare with the number");
_Static_assert(SHQUOTE_ERR_EMBEDDED_NUL == 4, "callers may compare with the number");

const char* nameOfFunctionThatFailsInC(void);

static const char text[] = "it's";
enum { TEXT_LENGTH = sizeof(text) - 1, QUOTED_LENGTH = TEXT_LENGTH + 2 + 3 };

static int isText(const char* bytes, size_t length) {
  return length == TEXT_LENGTH && memcmp(bytes, text, TEXT_LENGTH) == 0;
}

static int quotes(char* quoted) {
  char* out = quoted;
  size_t room = QUOTED_LENGTH;
  return c_shquote_quote(&out, &room, text, TEXT_LENGTH) == 0 && room == 0;
}

static int unquotes(const char* quoted) {
  char buffer[TEXT_LENGTH];
  char* out = buffer;
  size_t room = sizeof(buffer);
  return c_shquote_unquote(&out, &room, quoted, QUOTED_LENGTH) == 0 &&
         isText(buffer, sizeof(buffer) - room);
}

static int parsesNext(const char* quoted) {
  char buffer[TEXT_LENGTH];
  char* out = buffer;
  size_t room = sizeof(buffer);
  const char* in = quoted;
  size_t left = QUOTED_LENGTH;
  return c_shquote_parse_next(&out, &room, &in, &left) == 0 &&
         isText(buffer, sizeof(buffer) - room) && left == 0;
}

static int parsesArgv(const char* quoted) {
  char** words = NULL;
  size_t count = 0;
  int good = c_shquote_parse_argv(&words, &count, quoted, QUOTED_LENGTH) == 0 && count == 1 &&
             isText(words[0], strlen(words[0])) && words[1] == NULL;
  free(words);
  return good;
}

/* Quotes a text and recovers it in each of the three ways. Returns "" if all succeed. */
const char* nameOfFunctionThatFailsInC(void) {
  char quoted[QUOTED_LENGTH];
  if (!quotes(quoted)) return "c_shquote_quote";
  if (!unquotes(quoted)) return "c_shquote_unquote";
  if (!parsesNext(quoted)) return "c_shquote_parse_next";
  if (!parsesArgv(quoted)) return "c_shquote_parse_argv";
  return "";
}
