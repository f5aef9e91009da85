# Packages, one per component of the installation, for the family EAS_PACKAGES (DEB or RPM):
#
#   component     Debian        RPM
#   library       libeas1       libeas         libeas.so.1
#   node          libeasnode1   libeasnode     libeasnode.so.1
#   development   libeas-dev    libeas-devel   headers, CMake package, pkg-config file, man3, C examples
#   tools         eas-tools     eas-tools      easctl, schemas, samples, guides
#   slurm         libeas-slurm  eas-slurm      the Slurm adapter and its guide, where it was built
#   python        python3-eas   python3-eas    import eas, the OpenPBS hook
#
# cmake --workflow --preset package, cmake --workflow --preset rpm

set(EAS_PACKAGES DEB CACHE STRING "Which packages cpack makes: DEB or RPM")
if(EAS_PACKAGES STREQUAL RPM)
    set(package_names
        library libeas node libeasnode development libeas-devel tools eas-tools slurm eas-slurm
        python python3-eas)
else()
    set(package_names
        library libeas${PROJECT_VERSION_MAJOR} node libeasnode${PROJECT_VERSION_MAJOR}
        development libeas-dev tools eas-tools slurm libeas-slurm python python3-eas)
endif()
while(package_names)
    list(POP_FRONT package_names component name)
    set(EAS_PACKAGE_OF_${component} ${name})
endwhile()

# An installation rule without a package would silently be left out of all of them.
get_cmake_property(CPACK_COMPONENTS_ALL COMPONENTS)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    if(NOT DEFINED EAS_PACKAGE_OF_${component})
        message(FATAL_ERROR "install(): no package has the component \"${component}\"")
    endif()
endforeach()

set(version ${PROJECT_VERSION}-1)
set(CPACK_GENERATOR ${EAS_PACKAGES})
set(CPACK_PACKAGE_NAME libeas)
set(CPACK_PACKAGE_CONTACT "The libeas maintainers <maintainers@libeas.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Slurm loads plugins of its own release only: 0x160508 is 22.05.8, any 22.05 will do.
if(EXISTS "${SLURM_INCLUDE_DIR}/slurm/slurm_version.h")
    file(STRINGS ${SLURM_INCLUDE_DIR}/slurm/slurm_version.h line REGEX "SLURM_VERSION_NUMBER 0x")
    string(REGEX MATCH "0x(..)(..).." line "${line}")
    math(EXPR year "0x${CMAKE_MATCH_1}")
    math(EXPR month "0x${CMAKE_MATCH_2}")
    string(REGEX MATCH "..$" month 0${month})
    set(slurm_release ${year}.${month})
endif()

# Of each: what it is, in a line, and what it has.
set(about "libeas predicts, from the counters of one run, how much power and time
a job would need at every processor frequency, and selects the one that
wastes least.")
set(summary_library "energy-aware job scheduling: shared library")
set(has_library "This package has the library that a batch scheduler or a node daemon loads.")
set(summary_node "energy-aware job scheduling: library for compute nodes")
set(has_node "This package has the library that measures a node (cycles, instructions,
memory traffic, joules) and sets its processor frequencies. It needs no
database.")
set(summary_development "energy-aware job scheduling: development files")
set(has_development "This package has the headers, the CMake package, the pkg-config file,
the manual pages of the functions, and example programs in C.")
set(summary_tools "energy-aware job scheduling: administrator's tool")
set(has_tools "This package has easctl, which sets up the database, calibrates the
nodes, shows tags and their savings and finds out why something does not
work; the database schemas; a sample cluster and sample ODBC
configuration; the guides.")
set(summary_slurm "energy-aware job scheduling: Slurm adapter")
set(has_slurm "This package connects the library to the workload manager Slurm.")
set(summary_python "energy-aware job scheduling: Python package")
set(has_python "This package has the Python package eas: the functions of a scheduler,
and the meter, frequencies and CPUs of a compute node.")

include(EasPackages${EAS_PACKAGES})
include(CPack)
