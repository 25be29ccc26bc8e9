# SPDX-License-Identifier: GPL-2.0-or-later
# What Debian wants otherwise than an installation has it; CPack runs this over the installed files.
set(share ${CPACK_TEMPORARY_DIRECTORY}/usr/share)
file(REMOVE ${share}/doc/quillet/LICENSE)  # Debian has it in /usr/share/common-licenses
file(RENAME ${share}/doc/quillet/NOTICES ${share}/doc/quillet/copyright)
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH, where it is set
file(WRITE ${share}/doc/quillet/changelog
"quillet (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * The changes are in /usr/share/doc/quillet/CHANGELOG.md.

 -- ${CPACK_PACKAGE_CONTACT}  ${now}
")
file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)
file(GLOB pages ${share}/man/man1/*.1)
execute_process(COMMAND gzip -9n ${pages} ${share}/doc/quillet/changelog COMMAND_ERROR_IS_FATAL ANY)
