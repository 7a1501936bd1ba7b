# The Debian package: what is installed where, and what the package says of itself.
# script/package builds it.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(doc share/doc/weir)

# gzipped(SOURCE DESTINATION NAME): installs SOURCE as NAME.gz; the same bytes every time.
function(gzipped source destination name)
  set(out ${PROJECT_BINARY_DIR}/package/${name}.gz)
  add_custom_command(OUTPUT ${out} DEPENDS ${PROJECT_SOURCE_DIR}/${source} VERBATIM
    COMMAND sh -c "gzip -9n <\"$1\" >\"$2\"" gzipped ${PROJECT_SOURCE_DIR}/${source} ${out})
  add_custom_target(${name}.gz ALL DEPENDS ${out})
  install(FILES ${out} DESTINATION ${destination})
endfunction()

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
install(TARGETS weir DESTINATION sbin)
gzipped(debian/weir.8 share/man/man8 weir.8)
gzipped(CHANGELOG.md ${doc} changelog)
gzipped(debian/changelog.Debian ${doc} changelog.Debian)
install(FILES README.md debian/copyright DESTINATION ${doc})
install(DIRECTORY docs examples DESTINATION ${doc})
install(FILES debian/lintian-overrides DESTINATION share/lintian/overrides RENAME weir)
install(FILES debian/weir.service DESTINATION lib/systemd/system)
install(FILES debian/weir.default DESTINATION /etc/default RENAME weir)
if(EXISTS ${PROJECT_SOURCE_DIR}/dashboard/dashboard.html)
  install(FILES dashboard/dashboard.html DESTINATION share/weir)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME weir)
set(CPACK_PACKAGE_CONTACT "The weir developers <weir@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGE_DESCRIPTION
"weir turns an HTTP Live Streaming (HLS) playlist into one endless HTTP
response: it picks the variant that the network carries, fetches the segments
from rings of cache servers, deciphers them, buffers them in a bounded amount
of memory, and writes them to any player that can read a stream.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 1)  # as more cut the archive by the number of processors
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS curl)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
foreach(file postinst prerm postrm conffiles)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/debian/${file})
endforeach()
include(CPack)
