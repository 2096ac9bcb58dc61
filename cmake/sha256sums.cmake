# Writes SHA256SUMS beside the archive, in the form that
# `sha256sum -c SHA256SUMS` checks:
#   cmake -DARCHIVE=<archive> -P sha256sums.cmake
file(SHA256 "${ARCHIVE}" hash)
get_filename_component(name "${ARCHIVE}" NAME)
get_filename_component(folder "${ARCHIVE}" DIRECTORY)
file(WRITE "${folder}/SHA256SUMS" "${hash}  ${name}\n")
