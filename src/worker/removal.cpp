// removal.cpp: removals in both directions (RemoveLocal for the server's, RemoveRemote for
// the user's) and the expansion of a directory's removal into its children's.
#include "foundation/error-code.h"
#include "worker/worker.h"

// Each of the three gives its event back (-1, "Interrupted") until removals are carried out
// here: the event stays pending and nothing is deleted on either side.
int Worker::RemoveLocal() {
    return ERR_INT;
}

int Worker::RemoveRemote() {
    return ERR_INT;
}

int Worker::ExpandDeleteEvent() {
    return ERR_INT;
}
