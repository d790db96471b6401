# Writes OUTPUT, a C++ file that defines CollectorPage::assets() from the page's files in
# PAGE_DIR. Bytes, not a string literal: the compiler need not accept literals this long.
set(assets
  "/|text/html|index.html"
  "/page.css|text/css|page.css"
  "/page.js|text/javascript|page.js")
set(arrays "")
set(entries "")
set(index 0)
foreach(asset IN LISTS assets)
  string(REPLACE "|" ";" parts "${asset}")
  list(GET parts 0 path)
  list(GET parts 1 type)
  list(GET parts 2 file)
  file(READ "${PAGE_DIR}/${file}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR length "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND arrays "constexpr char kAsset${index}[] = {${bytes}};\n")
  string(APPEND entries "    {\"${path}\", \"${type}; charset=utf-8\", {kAsset${index}, ${length}}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.new" "#include \"CollectorPage.h\"

namespace NorvAnalytic::Collector {
namespace {
${arrays}
constexpr CollectorPage::Asset kAssets[] = {
${entries}};
}  // namespace

std::span<const CollectorPage::Asset> CollectorPage::assets() { return kAssets; }

}  // namespace NorvAnalytic::Collector
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
