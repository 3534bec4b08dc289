// The installer queue's processing pass. (Being completed.)
#include "host.h"

void ExecuteServiceStep() {}
