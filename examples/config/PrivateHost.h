// A host to play with: a mount namespace of the program's own, in which /etc, the kernel's network settings and the
// folder of the module tools are new and empty but for what the demo needs. The machine itself is not touched.
#pragma once

// Enters it. Throws std::exception where the machine allows no private mount namespace.
void enterPrivateHost();
