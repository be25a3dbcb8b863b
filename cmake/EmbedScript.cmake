# Run by the build on behalf of embed_text: writes the header OUTPUT with the texts of FILES, which
# are separated by "|".

string(REPLACE "|" ";" files "${FILES}")
set(text "// Made by the build from the files named below.\n#pragma once\n\n")
string(APPEND text "#include <string_view>\n\nnamespace ${NAMESPACE} {\n")
foreach(path ${files})
  get_filename_component(name ${path} NAME)
  string(MAKE_C_IDENTIFIER ${name} identifier)
  # As hexadecimal, so that CMake's own rules for brackets and semicolons do not matter.
  file(READ ${path} hex HEX)
  string(LENGTH "${hex}" length)
  string(APPEND text "\n// ${name}\ninline constexpr char ${identifier}_bytes[] = {")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND text "${bytes}'\\0'};\n")
  math(EXPR size "${length} / 2")
  string(APPEND text
         "inline constexpr std::string_view ${identifier}{${identifier}_bytes, ${size}};\n")
  string(APPEND rows "    {\"${name}\", ${identifier}},\n")
endforeach()
string(APPEND text "\nstruct EmbeddedFile {\n"
               "  std::string_view name;\n  std::string_view text;\n};\n"
               "inline constexpr EmbeddedFile files[] = {\n${rows}};\n"
               "\n}  // namespace ${NAMESPACE}\n")
file(WRITE ${OUTPUT} "${text}")
