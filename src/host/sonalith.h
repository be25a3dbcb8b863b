/* sonalith.h - the boundary between a module and the sonalith host.
 *
 * The host is a closed program without a published header. This file declares what a module
 * provides to it and may ask of it, and is enough to write another module. It compiles as C11 and
 * C++20.
 *
 * Rules of this boundary:
 *
 *  1. Target: 64-bit little-endian Linux. Every record has a fixed layout, asserted at the end of
 *     this file. Reserved bytes belong to the host: a module does not touch them in a record of the
 *     host, and zeroes them in a record of its own.
 *  2. The host finds a module by the exported data object `plugin_entry_0_1` and calls it only
 *     through that object. `start` and `stop` of one sonalith_module never overlap.
 *  3. The host owns a sonalith_module. It is valid from the call of `start` until `stop` returns.
 *  4. Allocate memory that the host may see with sonalith_calloc and release it with sonalith_free.
 *     Release offset lists with sonalith_free too. Never pass null to sonalith_free.
 *  5. What an offset list points to (names, values, descriptions) must stay valid as long as the
 *     list. The host reads values at any time, without a lock; nothing notifies it of a write.
 *  6. Call sonalith_log and sonalith_strncpy from any thread. Call everything else only on the host
 *     thread that runs the entry or the change callback.
 *  7. Allocation results are never null. Operations declared void may return a value in the host;
 *     modules ignore it.
 *  8. Strings are NUL-terminated bytes. Arguments of a callback are borrowed until it returns.
 *
 * Not supported: more than one callback handle per registration, removing single slots, other sizes
 * than those below, and null for a list (except for the start parameters).
 */
#ifndef SONALITH_H
#define SONALITH_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes of a slot's name buffer and of a string slot's value, terminator included. */
#define SONALITH_SLOT_TEXT_SIZE 100

typedef char sonalith_slotText[SONALITH_SLOT_TEXT_SIZE];

/* Opaque: only the host knows their contents. */
typedef struct sonalith_engine sonalith_engine;
typedef struct sonalith_moduleOffsetList sonalith_moduleOffsetList;
typedef struct sonalith_keyValueList sonalith_keyValueList;

/* ---- Logging ---------------------------------------------------------------------------- */

/* Levels of log lines, in order of increasing severity. */
enum {
  SONALITH_LOG_TRACE = 1,   /* entries, steps of start and stop, exceptions inside callbacks */
  SONALITH_LOG_NETWORK = 2, /* network milestones */
  SONALITH_LOG_FAULT = 3,   /* a refused configuration, exceptions at the entries */
  SONALITH_LOG_ERROR = 4    /* a failed start, unusable lines of a configuration file */
};

/* Writes one log line. `file` and `line` name the calling source line; `one` is always 1. Any
 * thread. */
void sonalith_log(int32_t level, const char* file, int32_t line, int32_t one, const char* format,
                  ...) __attribute__((format(printf, 5, 6)));

/* ---- Memory ----------------------------------------------------------------------------- */

/* Returns `count` x `size` zero-filled bytes. */
void* sonalith_calloc(uint64_t count, uint64_t size);

/* Releases memory from sonalith_calloc or a list from sonalith_createModuleOffset. */
void sonalith_free(void* memory);

/* Copies a string, at most `size` bytes of it. If the source fills them all, the host decides
 * whether the last byte becomes the terminator. Any thread. */
void sonalith_strncpy(char* destination, const char* source, uint64_t size);

/* ---- Slots ------------------------------------------------------------------------------ */

/* Type of a slot's value. Numbered differently from the key/value items below. */
enum {
  SONALITH_SLOT_INT = 2,   /* int32_t */
  SONALITH_SLOT_FLOAT = 3, /* 32-bit float */
  SONALITH_SLOT_UINT = 4,  /* uint32_t */
  SONALITH_SLOT_STRING = 5 /* sonalith_slotText */
};

/* Describes one slot. sonalith_addModuleOffset copies it. */
typedef struct sonalith_moduleOffset {
  const char* name; /* the slot's name buffer */
  uint64_t reserved8;
  void* value; /* the slot's value */
  uint64_t reserved24;
  uint64_t valueSize; /* bytes: SONALITH_SLOT_TEXT_SIZE for a string, 4 otherwise */
  uint64_t reserved40;
  uint64_t reserved48;
  uint32_t valueType; /* SONALITH_SLOT_... */
  uint32_t reserved60;
  const void* validator; /* address of sonalith_moduleValidateOk, or null */
  uint64_t reserved72;
  uint64_t reserved80;
  const char* description; /* constant text for people */
  uint32_t flags;          /* 3 for an engine slot, 0 for a meter slot; the host knows why */
  uint32_t tail;           /* not written */
} sonalith_moduleOffset;

/* Returns a new empty list. The argument is always null. */
sonalith_moduleOffsetList* sonalith_createModuleOffset(void* always_null);

/* Appends a copy of `slot`. This may replace the list: read `*list` again after each call, and keep
 * no earlier value of it. */
void sonalith_addModuleOffset(sonalith_moduleOffsetList** list, const sonalith_moduleOffset* slot);

/* Only its address matters: as a `validator`, it accepts every value. */
extern const char sonalith_moduleValidateOk[];

/* The slots of one set, grouped by value type. Each group (GatewaySlotGroup) is a count, an array
 * of that many name buffers, and an array of that many values. Without slots, it is all zero. */
typedef struct GatewaySlotTable {
  uint64_t stringCount;
  sonalith_slotText* stringNames;
  sonalith_slotText* stringValues;
  uint64_t intCount;
  sonalith_slotText* intNames;
  int32_t* intValues;
  uint64_t uintCount;
  sonalith_slotText* uintNames;
  uint32_t* uintValues;
  uint64_t floatCount;
  sonalith_slotText* floatNames;
  float* floatValues;
} GatewaySlotTable;

/* ---- Key/value lists -------------------------------------------------------------------- */

/* Type of an item's value. Numbered differently from the slots above. */
enum {
  SONALITH_ITEM_UINT = 0,
  SONALITH_ITEM_INT = 1,
  SONALITH_ITEM_FLOAT = 2,
  SONALITH_ITEM_STRING = 3,
  SONALITH_ITEM_UINT_ARRAY = 4,
  SONALITH_ITEM_INT_ARRAY = 5,
  SONALITH_ITEM_FLOAT_ARRAY = 6,
  SONALITH_ITEM_DOUBLE = 7
};

/* The 8 bytes of an item's value; its type selects the member. 32-bit numbers are in the low 4. */
typedef union sonalith_itemValue {
  uint32_t asUint;
  int32_t asInt;
  float asFloat;
  const char* asString; /* may be null */
  const uint32_t* asUintArray;
  const int32_t* asIntArray;
  const float* asFloatArray;
  double asDouble;
} sonalith_itemValue;

/* One item, as an iteration passes it to its callback; read-only. */
typedef struct sonalith_keyValueItem {
  const char* key;
  uint64_t reserved8;
  uint32_t type; /* SONALITH_ITEM_... */
  uint32_t reserved20;
  sonalith_itemValue value;
  uint64_t count; /* number of elements; array types only */
} sonalith_keyValueItem;

/* Called for each item. Returns 0, or 1 if it caught an exception; the host decides whether a 1
 * ends the iteration. */
typedef int32_t (*sonalith_keyValueItemCallback)(const sonalith_keyValueItem* item, void* user);

sonalith_keyValueList* sonalith_keyValueListNew(void);
void sonalith_keyValueListDestroy(sonalith_keyValueList* list);
/* Returns non-zero if the list has no items. */
int32_t sonalith_keyValueListIsEmpty(const sonalith_keyValueList* list);
/* Returns 0 if the key was found. `*value` is then borrowed from the list and may be null. */
int32_t sonalith_keyValueListGetS(const sonalith_keyValueList* list, const char* key,
                                  const char** value);
void sonalith_keyValueListForEach(const sonalith_keyValueList* list,
                                  sonalith_keyValueItemCallback callback, void* user);

/* Append an item and copy its key. A string value must stay readable as long as the list that it
 * came from. */
void sonalith_keyValueListAddSS(sonalith_keyValueList* list, const char* key, const char* value);
void sonalith_keyValueListAddSI32(sonalith_keyValueList* list, const char* key, int32_t value);
void sonalith_keyValueListAddSU32(sonalith_keyValueList* list, const char* key, uint32_t value);
void sonalith_keyValueListAddSF(sonalith_keyValueList* list, const char* key, float value);

/* ---- Engine changes --------------------------------------------------------------------- */

/* Reports changes in the engine. The host owns `changes`. Any host thread. */
typedef void (*sonalith_engineChangesCallback)(sonalith_keyValueList* changes, void* user);

/* Registers a callback and returns its handle, or null on failure. The host may call the callback
 * before this returns. */
void* sonalith_engine_notify_changes_addCallback(sonalith_engine* engine,
                                                 sonalith_engineChangesCallback callback,
                                                 void* user);

/* Removes a callback. On return, no call of it is running and none will come, so the module may
 * release whatever the callback uses. */
void sonalith_engine_notify_changes_rmCallback(sonalith_engine* engine, void* handle);

/* ---- Module ----------------------------------------------------------------------------- */

/* The host's record of one module instance. A module touches only the named fields. The host's
 * record continues after the part declared here. */
typedef struct sonalith_module {
  char name[32];           /* host: name of the instance, terminated; at the record's address */
  sonalith_engine* engine; /* host: handle for the change notification */
  uint64_t reserved40[3];
  void* privateData;                        /* module: its own state */
  sonalith_moduleOffsetList* moduleOffsets; /* module: engine slots; host: null before `start` */
  uint64_t reserved80[2];
  GatewaySlotTable* slowMeterTable;            /* module */
  GatewaySlotTable* fastMeterTable;            /* module */
  sonalith_moduleOffsetList* slowMeterOffsets; /* module: dangling after `stop`, do not use */
  sonalith_moduleOffsetList* fastMeterOffsets; /* module: dangling after `stop`, do not use */
} sonalith_module;

/* Returns 0 if the module runs, -1 if not. `params`, the start parameters, may be null. */
typedef int32_t (*sonalith_startCycle)(sonalith_module* module, sonalith_keyValueList* params);
typedef void (*sonalith_stopCycle)(sonalith_module* module);

/* The descriptor that a module exports as `plugin_entry_0_1`. */
typedef struct plugin_entry {
  const char* name;
  uint64_t reserved8;
  sonalith_startCycle start;
  uint64_t reserved24;
  sonalith_stopCycle stop;
  uint64_t reserved40;
  uint64_t reserved48;
  uint64_t code; /* 13 */
} plugin_entry;

#ifdef __cplusplus
}
#endif

/* ---- Layout ----------------------------------------------------------------------------- */

#if !defined __LP64__ || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "sonalith runs on 64-bit little-endian Linux only: its records have no other layout"
#else

#ifdef __cplusplus
#define SONALITH_ASSERT(condition) static_assert(condition, #condition)
#else
#define SONALITH_ASSERT(condition) _Static_assert(condition, #condition)
#endif
#define SONALITH_SIZE(record, size) SONALITH_ASSERT(sizeof(record) == (size))
#define SONALITH_AT(record, field, offset) SONALITH_ASSERT(offsetof(record, field) == (offset))

SONALITH_SIZE(sonalith_moduleOffset, 104);
SONALITH_AT(sonalith_moduleOffset, name, 0);
SONALITH_AT(sonalith_moduleOffset, value, 16);
SONALITH_AT(sonalith_moduleOffset, valueSize, 32);
SONALITH_AT(sonalith_moduleOffset, valueType, 56);
SONALITH_AT(sonalith_moduleOffset, validator, 64);
SONALITH_AT(sonalith_moduleOffset, description, 88);
SONALITH_AT(sonalith_moduleOffset, flags, 96);
SONALITH_AT(sonalith_moduleOffset, tail, 100);

SONALITH_SIZE(sonalith_slotText, 100);
SONALITH_SIZE(GatewaySlotTable, 96);
SONALITH_AT(GatewaySlotTable, stringCount, 0);
SONALITH_AT(GatewaySlotTable, stringNames, 8);
SONALITH_AT(GatewaySlotTable, stringValues, 16);
SONALITH_AT(GatewaySlotTable, intCount, 24);
SONALITH_AT(GatewaySlotTable, intNames, 32);
SONALITH_AT(GatewaySlotTable, intValues, 40);
SONALITH_AT(GatewaySlotTable, uintCount, 48);
SONALITH_AT(GatewaySlotTable, uintNames, 56);
SONALITH_AT(GatewaySlotTable, uintValues, 64);
SONALITH_AT(GatewaySlotTable, floatCount, 72);
SONALITH_AT(GatewaySlotTable, floatNames, 80);
SONALITH_AT(GatewaySlotTable, floatValues, 88);

SONALITH_SIZE(sonalith_keyValueItem, 40);
SONALITH_AT(sonalith_keyValueItem, key, 0);
SONALITH_AT(sonalith_keyValueItem, type, 16);
SONALITH_AT(sonalith_keyValueItem, value, 24);
SONALITH_AT(sonalith_keyValueItem, count, 32);

SONALITH_AT(sonalith_module, name, 0);
SONALITH_AT(sonalith_module, engine, 32);
SONALITH_AT(sonalith_module, privateData, 64);
SONALITH_AT(sonalith_module, moduleOffsets, 72);
SONALITH_AT(sonalith_module, slowMeterTable, 96);
SONALITH_AT(sonalith_module, fastMeterTable, 104);
SONALITH_AT(sonalith_module, slowMeterOffsets, 112);
SONALITH_AT(sonalith_module, fastMeterOffsets, 120);

SONALITH_SIZE(plugin_entry, 64);
SONALITH_AT(plugin_entry, name, 0);
SONALITH_AT(plugin_entry, start, 16);
SONALITH_AT(plugin_entry, stop, 32);
SONALITH_AT(plugin_entry, code, 56);

#undef SONALITH_AT
#undef SONALITH_SIZE
#undef SONALITH_ASSERT

#endif /* 64 bits, little-endian */

#endif /* SONALITH_H */
