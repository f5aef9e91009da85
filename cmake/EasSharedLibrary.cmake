# A shared library: objects behind a version script, so that only its external interfaces are visible,
# and its headers as they will be installed, so that every client in this tree includes <eas/...>.

set(EAS_HEADER_DIR ${PROJECT_BINARY_DIR}/include)

# eas_shared_library(TARGET VERSION_SCRIPT HEADER... [PARTS HEADER...]): headers by their paths in the
# tree. They lie side by side in eas/; what they are made of, PARTS, keeps its folder.
function(eas_shared_library name script)
    cmake_parse_arguments(PARSE_ARGV 2 library "" "" PARTS)
    set(headers ${library_UNPARSED_ARGUMENTS})
    add_library(eas::${name} ALIAS ${name})
    set_target_properties(
        ${name}
        PROPERTIES VERSION ${PROJECT_VERSION}
                   SOVERSION ${PROJECT_VERSION_MAJOR}
                   LINKER_LANGUAGE CXX
                   LINK_DEPENDS ${script})
    target_link_libraries(${name} PRIVATE eas_options ${CMAKE_DL_LIBS} Threads::Threads)
    # A host program may define its own restore_priv: our calls must still reach ours.
    target_link_options(${name} PRIVATE LINKER:--version-script=${script}
                        LINKER:-Bsymbolic-functions
                        LINKER:--gc-sections)
    if(NOT EAS_SANITIZE)
        target_link_options(${name} PRIVATE LINKER:-z,defs)
    endif()
    foreach(header IN LISTS headers)
        get_filename_component(file ${header} NAME)
        configure_file(${PROJECT_SOURCE_DIR}/${header} ${EAS_HEADER_DIR}/eas/${file} COPYONLY)
        install(FILES ${PROJECT_SOURCE_DIR}/${header}
                DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/eas COMPONENT development)
    endforeach()
    foreach(header IN LISTS library_PARTS)
        get_filename_component(folder ${header} DIRECTORY)
        configure_file(${PROJECT_SOURCE_DIR}/${header} ${EAS_HEADER_DIR}/eas/${header} COPYONLY)
        install(FILES ${PROJECT_SOURCE_DIR}/${header}
                DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/eas/${folder} COMPONENT development)
    endforeach()
    target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${EAS_HEADER_DIR}>
                                                 $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

add_library(eas SHARED $<TARGET_OBJECTS:eas_objects>)
eas_shared_library(eas ${PROJECT_SOURCE_DIR}/interface/libeas.map interface/interface.h
                   common/node/EasMisc.h common/node/EnergyUtil.h)
