# cmake -DOUTPUT=FILE.cpp -DDIRECTORY=DIR "-DFILES=a;b" -P EmbedFiles.cmake
# Writes the C++ source that holds the files' content, the same bytes for the
# same files.
set(delimiter tarvik_file)
set(source "#include \"assets.hpp\"\n\nnamespace Tarvik\n{\n\nstd::span<const Asset> assets()\n{\n  using namespace std::string_view_literals;\n  static constexpr Asset all[] = {\n")
foreach(file IN LISTS FILES)
  file(READ ${DIRECTORY}/${file} content)
  string(FIND "${content}" ")${delimiter}\"" inside)
  if(NOT inside EQUAL -1)
    message(FATAL_ERROR "${file} contains )${delimiter}\", which would end it too early")
  endif()
  string(APPEND source "{\"${file}\"sv, R\"${delimiter}(${content})${delimiter}\"sv},\n")
endforeach()
string(APPEND source "  };\n  return all;\n}\n\n} // namespace Tarvik\n")
file(WRITE ${OUTPUT} "${source}")
