# Installs the library, its headers, the CMake package, the pkg-config file, the documents and what belongs to mvtar;
# components Runtime and Development.
include(CMakePackageConfigHelpers)

install(TARGETS morvane_tar EXPORT morvane_tarTargets
  RUNTIME COMPONENT Runtime
  LIBRARY COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE COMPONENT Development)

# What tar/ClsTar.h reaches, which is what stands in its signatures: applications need no more, and everything else may change.
set(morvane_public_headers
  runtime/base/Export.h runtime/base/ExtPtrArray.h runtime/base/MorvaneCritSec.h runtime/base/MorvaneObject.h
  runtime/base/RelaxedAtomic.h
  runtime/buffer/ClsBinData.h runtime/buffer/DataBuffer.h
  runtime/component/ClsBase.h
  runtime/fs/MorvaneFileTime.h runtime/fs/mvFileInfo.h
  runtime/io/OutputDataBuffer.h runtime/io/OutputFile.h runtime/io/_mvDataSource.h runtime/io/_mvFileDataSource.h
  runtime/io/_mvMemoryDataSource.h runtime/io/_mvOutput.h
  runtime/log/LogBase.h runtime/log/LogContextExitor.h runtime/log/LogNull.h runtime/log/_mvLogger.h
  runtime/progress/ProgressEvent.h runtime/progress/ProgressMonitor.h runtime/progress/TarMember.h
  runtime/progress/TarMemberInfo.h
  runtime/text/ExtPtrArraySb.h runtime/text/StringBuffer.h runtime/text/XString.h
  tar/ClsTar.h tar/format/TarHeader.h tar/write/DirRoot.h)
foreach(header ${morvane_public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/morvane/${folder} COMPONENT Development)
endforeach()

set(morvane_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/morvane_tar)
configure_package_config_file(cmake/morvane_tarConfig.cmake.in morvane_tarConfig.cmake
  INSTALL_DESTINATION ${morvane_package_dir})
write_basic_package_version_file(morvane_tarConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/morvane_tarConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/morvane_tarConfigVersion.cmake
              cmake/FindIsal.cmake cmake/FindZstd.cmake
  DESTINATION ${morvane_package_dir} COMPONENT Development)
install(EXPORT morvane_tarTargets NAMESPACE morvane:: DESTINATION ${morvane_package_dir} COMPONENT Development)

# Paths in the pkg-config file count from its own place, so that an installation may be staged and moved.
file(RELATIVE_PATH morvane_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" morvane_pc_to_prefix ${morvane_pc_to_prefix})
foreach(dir LIBDIR INCLUDEDIR)
  set(morvane_pc_${dir} ${CMAKE_INSTALL_${dir}})
  if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    string(PREPEND morvane_pc_${dir} "\${prefix}/")
  endif()
endforeach()
set(morvane_pc_codecs " ${CMAKE_THREAD_LIBS_INIT} -lbz2 -lz")
if(MORVANE_HAS_ISAL)
  string(APPEND morvane_pc_codecs " -lisal")
endif()
if(MORVANE_HAS_ZSTD)
  string(APPEND morvane_pc_codecs " -lzstd")
endif()
if(MORVANE_HAS_XZ)
  string(APPEND morvane_pc_codecs " -llzma")
endif()
# Of a static library alone there is nothing to link without its codecs: plain "pkg-config --libs" names them then.
set(morvane_pc_static_codecs "")
if(NOT BUILD_SHARED_LIBS)
  set(morvane_pc_static_codecs "${morvane_pc_codecs}")
endif()
configure_file(cmake/morvane_tar.pc.in morvane_tar.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/morvane_tar.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# README.md and the pages in docs/ refer to each other by relative paths.
set(morvane_doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/morvane_tar)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${morvane_doc_dir} COMPONENT Development)
install(DIRECTORY docs DESTINATION ${morvane_doc_dir} COMPONENT Development
  FILES_MATCHING PATTERN *.md PATTERN *.xsd PATTERN *.svg)
foreach(component Runtime Development)  # either may be all that somebody installs
  install(FILES LICENSE DESTINATION ${morvane_doc_dir} COMPONENT ${component})
endforeach()

if(TARGET mvtar)
  # The command finds the shared library of its own installation, wherever that is moved to.
  file(RELATIVE_PATH morvane_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  if(BUILD_SHARED_LIBS)
    set_target_properties(mvtar PROPERTIES INSTALL_RPATH "$ORIGIN/${morvane_bin_to_lib}")
  endif()
  install(FILES docs/mvtar.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Runtime)
  install(FILES cli/completions/mvtar.bash RENAME mvtar
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT Runtime)
  install(FILES cli/completions/_mvtar
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/site-functions COMPONENT Runtime)
  install(FILES cli/completions/mvtar.fish
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d COMPONENT Runtime)
endif()
