# libeas.so: the objects behind a version script, so that only the external interfaces are visible.

add_library(eas SHARED $<TARGET_OBJECTS:eas_objects>)
add_library(eas::eas ALIAS eas)
set_target_properties(
    eas
    PROPERTIES VERSION ${PROJECT_VERSION}
               SOVERSION ${PROJECT_VERSION_MAJOR}
               LINKER_LANGUAGE CXX
               LINK_DEPENDS ${PROJECT_SOURCE_DIR}/interface/libeas.map)
target_link_libraries(eas PRIVATE eas_options ${CMAKE_DL_LIBS} Threads::Threads)
target_link_options(
    eas
    PRIVATE
    LINKER:--version-script=${PROJECT_SOURCE_DIR}/interface/libeas.map
    # A host program may define its own restore_priv: our calls must still reach ours.
    LINKER:-Bsymbolic-functions)
if(NOT EAS_SANITIZE)
    target_link_options(eas PRIVATE LINKER:-z,defs)
endif()

# The headers as they will be installed, so that every client in this tree includes <eas/...>.
set(EAS_PUBLIC_HEADERS interface/interface.h common/EasMisc.h common/EnergyUtil.h)
set(EAS_HEADER_DIR ${PROJECT_BINARY_DIR}/include)
foreach(header ${EAS_PUBLIC_HEADERS})
    get_filename_component(name ${header} NAME)
    configure_file(${PROJECT_SOURCE_DIR}/${header} ${EAS_HEADER_DIR}/eas/${name} COPYONLY)
endforeach()
target_include_directories(eas INTERFACE $<BUILD_INTERFACE:${EAS_HEADER_DIR}>
                                         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
