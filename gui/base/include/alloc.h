// The one allocation pair behind every block of the base library. The caller
// passes the size again on release, so blocks carry no header of their own.
#pragma once

#include <cstddef>

void* AllocParticle(size_t bytes);
void FreeParticle(size_t bytes, void* pointer);
