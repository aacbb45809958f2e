# Debian packages, by CPack: the shared library, what programs are built with, the command, and the
# Python module if it is built. scripts/make-packages configures and makes them.
set(library_package libmlnn${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tool)
set(CPACK_PACKAGE_CONTACT "mlnn maintainers <maintainers@mlnn.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Manual pages are compressed as Debian wants them.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packages/compress.cmake)

# Names the package of a component, with its section and its description: a line, then lines of
# what it holds. Every package tells whose it is, and what changed.
function(mlnn_package component name section summary holds)
  string(TOUPPER ${component} key)
  string(JOIN "\n" description ${summary}
    "mlnn keeps and runs small feed-forward networks on mel audio features:"
    "voice activity, spoken digits, phone posteriors."
    "." ${holds})
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${description}" PARENT_SCOPE)
  set(pages ${PROJECT_BINARY_DIR}/packages/${name})
  configure_file(cmake/packages/copyright ${pages}/copyright COPYONLY)
  configure_file(cmake/packages/changelog.in ${pages}/changelog @ONLY)
  execute_process(COMMAND gzip -9nf changelog WORKING_DIRECTORY ${pages} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${pages}/copyright ${pages}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

mlnn_package(library ${library_package} libs "neural networks on mel audio features - library"
  "This package holds the shared library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/packages/library/triggers)

mlnn_package(development libmlnn-dev libdevel "neural networks on mel audio features - development"
  "This package holds headers, and what CMake and pkg-config need to find them.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${library_package} (= ${PROJECT_VERSION}), libeigen3-dev (>= 3.4)")

mlnn_package(tool mlnn sound "neural networks on mel audio features - command"
  "This package holds the command mlnn: it runs, checks, converts, folds,;reduces, averages and compares models.")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS python3-mlnn)  # for ONNX

if(MLNN_BUILD_PYTHON)
  find_package(Python3 COMPONENTS Interpreter REQUIRED)
  list(APPEND CPACK_COMPONENTS_ALL python)
  mlnn_package(python python3-mlnn python "neural networks on mel audio features - Python module"
    "This package holds the module mlnn for Python 3.")
  math(EXPR next_minor "${Python3_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3-numpy, \
python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}), \
python3 (<< ${Python3_VERSION_MAJOR}.${next_minor})")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-onnx, python3-sklearn, python3-torch")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA  # compiled modules come and go with the package
    ${PROJECT_SOURCE_DIR}/cmake/packages/python/postinst
    ${PROJECT_SOURCE_DIR}/cmake/packages/python/prerm)
endif()

include(CPack)
