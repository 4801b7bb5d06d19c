# SPDX-License-Identifier: MIT
#
# For the board's processor, which has no sanitizers' runtime: the library once more, built so
# that undefined behaviour is a trap. Tests of the library run over both, compiled once: the
# library that ships stays as it is, and so does what is measured of it.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL ppc)
    get_target_property(sources carddev_objects SOURCES)
    list(TRANSFORM sources PREPEND ${PROJECT_SOURCE_DIR}/)
    add_library(carddev_trapping STATIC ${sources})
    target_include_directories(carddev_trapping PRIVATE ${PROJECT_SOURCE_DIR}
        PUBLIC ${PROJECT_SOURCE_DIR}/include)
    target_compile_options(carddev_trapping PRIVATE
        $<TARGET_PROPERTY:carddev_objects,COMPILE_OPTIONS>
        -fsanitize=undefined -fsanitize-undefined-trap-on-error)
    target_link_libraries(carddev_trapping PRIVATE carddev_build_flags)
    set_target_properties(carddev_trapping PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
endif()

# The test NAME, which takes the ARGUMENTS, over that library.
function(carddev_trapping_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "ARGUMENTS")
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL ppc)
        add_executable(${name}_trapping $<TARGET_OBJECTS:${name}>)
        target_link_libraries(${name}_trapping PRIVATE carddev_trapping ${arg_UNPARSED_ARGUMENTS})
        target_link_options(${name}_trapping PRIVATE $<TARGET_PROPERTY:${name},LINK_OPTIONS>)
        add_test(NAME ${name}_trapping COMMAND ${name}_trapping ${arg_ARGUMENTS})
        set_tests_properties(${name}_trapping PROPERTIES TIMEOUT 300)
    endif()
endfunction()
