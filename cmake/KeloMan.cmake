# Manual pages: man/man3/kelo_<family>.3 documents one public header and
# names every function of it in its NAME section; each such name gets a
# one-line ".so" page so that "man 3 <function>" opens the family page.
# man/man1 holds the tools' pages, man/man7 the overview of the library.
file(GLOB KELO_MAN1 CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/man1/*.1)
file(GLOB KELO_MAN3 CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/man3/*.3)
file(GLOB KELO_MAN7 CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/man7/*.7)

set(KELO_MAN_LINK_DIR ${PROJECT_BINARY_DIR}/man/man3)
file(REMOVE_RECURSE ${KELO_MAN_LINK_DIR})
file(MAKE_DIRECTORY ${KELO_MAN_LINK_DIR})
foreach(page IN LISTS KELO_MAN3)
  get_filename_component(page_name ${page} NAME_WE)
  file(READ ${page} text)
  # The NAME section: ".SH NAME" up to the next ".SH", names before "\-".
  string(REGEX MATCH "\\.SH NAME\n([^.][^\n]*\n)+" names "${text}")
  string(REGEX REPLACE "^\\.SH NAME\n" "" names "${names}")
  string(REGEX REPLACE "\\\\-.*" "" names "${names}")
  string(REGEX REPLACE "[ \n\\\\]" "" names "${names}")
  string(REPLACE "," ";" names "${names}")
  if(NOT page_name IN_LIST names)
    message(FATAL_ERROR "man: ${page} does not name itself (${page_name}) in NAME")
  endif()
  foreach(n IN LISTS names)
    if(NOT n STREQUAL page_name)
      file(WRITE ${KELO_MAN_LINK_DIR}/${n}.3 ".so man3/${page_name}.3\n")
    endif()
  endforeach()
endforeach()

install(FILES ${KELO_MAN1} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${KELO_MAN3} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(FILES ${KELO_MAN7} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
install(DIRECTORY ${KELO_MAN_LINK_DIR}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
