# Run by CPack after it made the archives, before it moves them to the
# package directory: writes SHA256SUMS there, beside them, in the form that
# `sha256sum -c SHA256SUMS` checks.
set(sums "")
foreach(archive IN LISTS CPACK_PACKAGE_FILES)
  file(SHA256 "${archive}" hash)
  get_filename_component(name "${archive}" NAME)
  string(APPEND sums "${hash}  ${name}\n")
endforeach()
file(WRITE "${CPACK_PACKAGE_DIRECTORY}/SHA256SUMS" "${sums}")
