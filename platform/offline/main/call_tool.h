/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The one way up: the offline platform calls the tool. */
#ifndef QUILLET_OFFLINE_MAIN_CALL_TOOL_H
#define QUILLET_OFFLINE_MAIN_CALL_TOOL_H

#include <string>
#include <vector>

namespace offline {

/* Calls wmain with the name of the program and these arguments, in UTF-8, and gives what it returned. What it
 * needs of the installation is opened as the session says. May throw std::bad_alloc. */
int callTool(const std::vector<std::string>& arguments);

/* Whether the tool's option q is among its arguments. */
bool quietAsked(const std::vector<std::string>& arguments);

/* A process has 8 bits for its status. What does not fit is 255, or its low 8 bits, and never 0. */
int exitStatusOf(int status);

} /* namespace offline */

#endif
