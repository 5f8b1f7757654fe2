# What only a Debian package has, put into the tree that is about to be packaged.
set(tree ${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX})
set(documentation ${tree}/share/doc/${CPACK_PACKAGE_NAME})
file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog DESTINATION ${documentation})
file(MAKE_DIRECTORY ${tree}/share/lintian/overrides)
file(COPY_FILE ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides ${tree}/share/lintian/overrides/${CPACK_PACKAGE_NAME})

file(GLOB manuals ${tree}/share/man/*/*)
execute_process(COMMAND gzip --best --no-name ${manuals} ${documentation}/changelog COMMAND_ERROR_IS_FATAL ANY)
