// SPDX-FileCopyrightText: The ipsec-helpers authors
// SPDX-License-Identifier: Apache-2.0

// A private host for the demo: the program's own mount namespace, in which /etc, the kernel's network settings and the
// folder of the module tools are new and hold only what the demo needs. The machine itself is not changed.
#pragma once

// Enters the private host. Throws std::exception if the machine allows no private mount namespace.
void enterPrivateHost();
