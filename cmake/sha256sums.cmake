# Run by CPack after it made the archives: writes SHA256SUMS beside them, in
# the form that `sha256sum -c SHA256SUMS` checks.
set(sums "")
foreach(archive IN LISTS CPACK_PACKAGE_FILES)
  file(SHA256 "${archive}" hash)
  get_filename_component(name "${archive}" NAME)
  string(APPEND sums "${hash}  ${name}\n")
endforeach()
list(GET CPACK_PACKAGE_FILES 0 first)
get_filename_component(folder "${first}" DIRECTORY)
file(WRITE "${folder}/SHA256SUMS" "${sums}")
message(STATUS "SHA256SUMS written to ${folder}")
