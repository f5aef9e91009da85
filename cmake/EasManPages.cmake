# The manual pages: compressed as Debian wants them, and laid down where man(1) looks.
#
# eas_install_man_page(FILE COMPONENT [ALIAS...]): an alias is a further name of the page.

find_program(EAS_GZIP gzip REQUIRED)
set(EAS_MAN_DIR ${PROJECT_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${EAS_MAN_DIR})

function(eas_install_man_page file component)
    get_filename_component(name ${file} NAME)
    string(REGEX MATCH "[0-9]$" section ${name})
    set(directory ${CMAKE_INSTALL_MANDIR}/man${section})
    set(page ${EAS_MAN_DIR}/${name}.gz)
    add_custom_command(
        OUTPUT ${page}
        COMMAND sh -c "\"${EAS_GZIP}\" -9nc '${file}' >'${page}'"
        DEPENDS ${file}
        VERBATIM)
    install(FILES ${page} DESTINATION ${directory} COMPONENT ${component})
    foreach(alias IN LISTS ARGN)
        set(link ${EAS_MAN_DIR}/${alias}.${section}.gz)
        file(CREATE_LINK ${name}.gz ${link} SYMBOLIC)
        install(FILES ${link} DESTINATION ${directory} COMPONENT ${component})
    endforeach()
    add_custom_target(man-${name} ALL DEPENDS ${page})
endfunction()

set(pages ${PROJECT_SOURCE_DIR}/docs/man)
foreach(page eas eas_initialize eas_generate_tag eas_auto_select_frequency gethwrusage extract_bits
             EnergyUtil)
    eas_install_man_page(${pages}/${page}.3 development)
endforeach()
eas_install_man_page(${pages}/eas_query_tag.3 development eas_remove_tag)
eas_install_man_page(${pages}/getenrusage.3 development getearusage verify_qpx sysfs_read_file
                     sysfs_get_one_value)
eas_install_man_page(${pages}/drop_priv_temp.3 development drop_priv_perm restore_priv)
eas_install_man_page(${pages}/easnode.3 development easnode_error_text)
eas_install_man_page(${pages}/easnode_meter_open.3 development easnode_meter_read
                     easnode_meter_source easnode_meter_close)
eas_install_man_page(
    ${pages}/easnode_frequency.3 development
    easnode_frequency_open easnode_frequency_close easnode_frequency_describe
    easnode_frequency_steps easnode_frequency_read easnode_frequency_save easnode_frequency_set
    easnode_frequency_restore easnode_frequency_check_begin easnode_frequency_check_end)
eas_install_man_page(${pages}/easnode_topology.3 development easnode_topology_read
                     easnode_topology_cpus)
eas_install_man_page(${pages}/easnode_record.3 development)
eas_install_man_page(${pages}/eas-thresholds.5 tools)
eas_install_man_page(${pages}/eas-coefficients.5 tools)
