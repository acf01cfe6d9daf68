# Generates revision.h with the version and the 40 digits of the source revision at each build; its time changes only
# if its content does.
set(REVISION_HEADER ${CMAKE_BINARY_DIR}/generated/revision.h)
add_custom_target(
    vigmond_revision_header
    BYPRODUCTS ${REVISION_HEADER}
    COMMAND ${CMAKE_COMMAND} -DVERSION=${PROJECT_VERSION} -DGIVEN=${VIGMOND_GIT_ID} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR} -DHEADER=${REVISION_HEADER}
            -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/write_revision.cmake)
add_library(vigmond_revision INTERFACE)
target_include_directories(vigmond_revision INTERFACE ${CMAKE_BINARY_DIR}/generated)
add_dependencies(vigmond_revision vigmond_revision_header)
