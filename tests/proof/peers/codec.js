#!/usr/bin/env node
// Reads and writes messages of the schemas with protobufjs, for comparison with other
// implementations. Each line of standard input is a JSON array ["read"|"write", TYPE, ITEMS]. The
// answer is a JSON array with an element for each item:
//   read    items are hexadecimal bytes, answers are values
//   write   items are values, answers are hexadecimal bytes
// For an item that can't be read the answer is {"error": TEXT}. In values, floating point numbers
// are the hexadecimal digits of their bits. Members of a oneof and messages are present only if
// they are set; all other fields are always present.
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

// Converts messages and values from JSON ("made") or to JSON ("plain").
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

// A message that was read keeps all members of a oneof that arrived, but names the last one.
function isThere(field, message) {
  if (field.partOf && message[field.partOf.name]) {
    return message[field.partOf.name] === field.name;
  }
  const hasPresence = field.partOf || (field.resolvedType && !field.repeated);
  return !hasPresence || Object.hasOwn(message, field.name);
}

// protobufjs writes every field that is present, but proto3 requires empty strings to be left out.
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
