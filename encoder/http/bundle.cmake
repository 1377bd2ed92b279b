# SPDX-License-Identifier: Apache-2.0
# Puts the files of the page (page/CMakeLists.txt) and the description of the API into the program.
# page_file(<path> <file>) puts a file into the program, under that path. The assembler includes its bytes, so that no
# program has to run while this one is built for another machine.
set(bundle ${CMAKE_CURRENT_BINARY_DIR}/bundled_files.cpp)
set(declarations "")
set(rows "")
set(inputs "")
set(number 0)
function(page_file path file)
  string(APPEND declarations "asm(\".pushsection .rodata\\n.balign 16\\npage_file_${number}:\\n.incbin \\\"${file}\\\"\\n\"\n"
                             "    \"page_file_${number}_end:\\n.byte 0\\n.popsection\");\n"
                             "extern \"C\" const unsigned char page_file_begin_${number}[] asm(\"page_file_${number}\");\n"
                             "extern \"C\" const unsigned char page_file_end_${number}[] asm(\"page_file_${number}_end\");\n")
  string(APPEND rows "    {\"${path}\", page_file_begin_${number}, page_file_end_${number}},\n")
  math(EXPR number "${number} + 1")
  set(declarations "${declarations}" PARENT_SCOPE)
  set(rows "${rows}" PARENT_SCOPE)
  set(number ${number} PARENT_SCOPE)
  set(inputs ${inputs} ${file} PARENT_SCOPE)
endfunction()

foreach(asset ${page_assets})
  page_file(/${asset} ${CMAKE_CURRENT_SOURCE_DIR}/page/${asset})
endforeach()
page_file(/api/v1/openapi.json ${PROJECT_SOURCE_DIR}/docs/openapi.json)

file(CONFIGURE OUTPUT ${bundle} @ONLY CONTENT
"// SPDX-License-Identifier: Apache-2.0
// Made by encoder/http/bundle.cmake.
#include \"http/assets.h\"

@declarations@
namespace mdencoder::http {
namespace {

constexpr BundledFile kFiles[] = {
@rows@};

}  // namespace

std::span<const BundledFile> BundledFiles() {
  return kFiles;
}

}  // namespace mdencoder::http
")
target_sources(mdencoder_core PRIVATE ${bundle})
set_source_files_properties(${bundle} PROPERTIES OBJECT_DEPENDS "${inputs}")
