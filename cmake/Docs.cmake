# The API reference of the public headers: `cmake --build build --target docs` writes
# build/docs/html/index.html. Every public declaration must be documented and every comment
# well formed: a single Doxygen warning fails the target. Defined only where Doxygen is installed,
# so a plain build needs none (tools/bootstrap.sh installs it; CI builds the target).
find_package(Doxygen 1.9 QUIET)
if(NOT DOXYGEN_FOUND)
  return()
endif()

set(DOXYGEN_PROJECT_NAME "information_api")
set(DOXYGEN_PROJECT_NUMBER "${PROJECT_VERSION}")
set(DOXYGEN_PROJECT_BRIEF "Product-usage records and their upload, for the 3D-scanning host")
set(DOXYGEN_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/docs")
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE "${PROJECT_SOURCE_DIR}/docs/mainpage.md")
# Headers are shown as hosts include them: <information_api/information_api.h>.
set(DOXYGEN_STRIP_FROM_PATH "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}/include")
set(DOXYGEN_STRIP_FROM_INC_PATH "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}/include")
set(DOXYGEN_FULL_PATH_NAMES YES)

# Only what is documented is extracted, and whatever is public but undocumented is a warning.
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_EXTRACT_PRIVATE NO)
set(DOXYGEN_WARNINGS YES)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_IF_DOC_ERROR YES)
set(DOXYGEN_WARN_IF_INCOMPLETE_DOC YES)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)  # lists every warning, then fails
set(DOXYGEN_QUIET YES)

# The first sentence of a /// comment is its brief description.
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_INHERIT_DOCS YES)  # the implementation's overrides carry the interface's text
set(DOXYGEN_SORT_MEMBER_DOCS NO)  # declaration order: the manager's slots and members are its ABI

# The headers' macros, as the compiler sees them on the host's side.
set(DOXYGEN_ENABLE_PREPROCESSING YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_SEARCH_INCLUDES NO)
set(DOXYGEN_PREDEFINED
  "INFORMATION_API_EXPORT="
  "Q_OBJECT="
  "Q_DECLARE_METATYPE(x)="
)

set(DOXYGEN_GENERATE_HTML YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_CLASS_GRAPH NO)

# The public headers only: http.h and json_handler.h are the library's own.
set(_docs_inputs
  "${PROJECT_SOURCE_DIR}/docs/mainpage.md"
  "${PROJECT_SOURCE_DIR}/information_api/information_api.h"
  "${PROJECT_SOURCE_DIR}/information_api/windows_information_imp.h"
  "${PROJECT_SOURCE_DIR}/information_api/transport_security.h"
  "${PROJECT_SOURCE_DIR}/information_api/KrMacosInfo.h"  # installed on macOS only
  "${PROJECT_BINARY_DIR}/include/information_api/information_api_version.h"  # generated
)
doxygen_add_docs(docs ${_docs_inputs}
  USE_STAMP_FILE
  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
  COMMENT "API reference of the public headers (a Doxygen warning fails it)"
)
unset(_docs_inputs)
