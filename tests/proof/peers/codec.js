#!/usr/bin/env node
// Reads and writes messages of the schemas by protobufjs, for comparison with other
// implementations. A line of standard input is a JSON array ["read"|"write", TYPE, ITEMS], and the
// answer a JSON array with an element for each item:
//   read    items are hexadecimal bytes, the answers are values
//   write   items are values, the answers are hexadecimal bytes
// An item that can't be read gives {"error": TEXT}. In values, floating point numbers are the
// hexadecimal digits of their bits; a member of a oneof and a message stand there only if they are
// set, and everything else always.
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";
import protobuf from "protobufjs";

const schemas = fileURLToPath(new URL("../../../proto/", import.meta.url));
const root = new protobuf.Root();
root.resolvePath = (_, name) => schemas + name;
root.loadSync(["meters.proto", "engine.proto"], { keepCase: true }).resolveAll();

const bits = Buffer.alloc(8);
const floats = {
  float: {
    plain: (value) => (bits.writeFloatBE(value), bits.toString("hex", 0, 4)),
    made: (text) => Buffer.from(text, "hex").readFloatBE(),
  },
  double: {
    plain: (value) => (bits.writeDoubleBE(value), bits.toString("hex", 0, 8)),
    made: (text) => Buffer.from(text, "hex").readDoubleBE(),
  },
};

// Takes messages and values from ("made") or to ("plain") what stands in JSON.
function convertedValue(field, value, direction) {
  if (field.resolvedType) return converted(field.resolvedType, value, direction);
  return field.type in floats ? floats[field.type][direction](value) : value;
}

function converted(type, message, direction) {
  const result = {};
  for (const field of type.fieldsArray) {
    if (!isThere(field, message)) continue;
    const value = message[field.name];
    result[field.name] = field.repeated
      ? value.map((each) => convertedValue(field, each, direction))
      : convertedValue(field, value, direction);
  }
  return result;
}

// Of the members of a oneof, a message that was read keeps all that came, but names the last one.
function isThere(field, message) {
  if (field.partOf && message[field.partOf.name]) {
    return message[field.partOf.name] === field.name;
  }
  const hasPresence = field.partOf || (field.resolvedType && !field.repeated);
  return !hasPresence || Object.hasOwn(message, field.name);
}

// protobufjs writes whatever is there: an empty string has to be absent, as proto3 wants it.
function withoutEmptyTexts(type, message) {
  for (const field of type.fieldsArray) {
    const value = message[field.name];
    if (value === "" && !field.partOf) delete message[field.name];
    if (field.resolvedType && value) {
      for (const each of [value].flat()) withoutEmptyTexts(field.resolvedType, each);
    }
  }
  return message;
}

const hexOf = (bytes) => Buffer.from(bytes).toString("hex");

const operations = {
  read: (type, hex) => converted(type, type.decode(Buffer.from(hex, "hex")), "plain"),
  write: (type, value) =>
    hexOf(type.encode(withoutEmptyTexts(type, converted(type, value, "made"))).finish()),
};

function attempt(operation, type, item) {
  try {
    return operations[operation](type, item);
  } catch (error) {
    return { error: error.message };
  }
}

createInterface({ input: process.stdin }).on("line", (line) => {
  const [operation, name, items] = JSON.parse(line);
  const type = root.lookupType(name);
  console.log(JSON.stringify(items.map((item) => attempt(operation, type, item))));
});
