# embed_text(TARGET HEADER NAMESPACE FILE...): embeds files, unchanged, as text in the program.
#
# TARGET's sources may include "HEADER", which the build makes. In NAMESPACE it declares, for a FILE
# "page/a-b.css", `inline constexpr std::string_view a_b_css`, and `files`, an array of the `name`
# ("a-b.css") and the `text` of each FILE. The build remakes it when a file changes.

set(gateway_embed_script ${CMAKE_CURRENT_LIST_DIR}/EmbedScript.cmake)

function(embed_text target header namespace)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/embedded)
  set(files)
  foreach(file ${ARGN})
    get_filename_component(path ${file} ABSOLUTE)
    list(APPEND files ${path})
    # For the SBOM.
    set_property(GLOBAL APPEND PROPERTY GATEWAY_EMBEDDED "${folder}/${header}|${path}")
  endforeach()
  string(REPLACE ";" "|" joined "${files}")
  add_custom_command(
    OUTPUT ${folder}/${header}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${folder}/${header} -DNAMESPACE=${namespace}
            "-DFILES=${joined}" -P ${gateway_embed_script}
    DEPENDS ${files} ${gateway_embed_script}
    COMMENT "Embedding ${header}"
    VERBATIM)
  target_sources(${target} PRIVATE ${folder}/${header})
  target_include_directories(${target} PRIVATE ${folder})
endfunction()
