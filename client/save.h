// Saving the last position.
#ifndef TAVOR_CLIENT_SAVE_H
#define TAVOR_CLIENT_SAVE_H

#include "client/session.h"

// Reports what the location file holds afterwards: the daemon saves even when it knows nothing. Returns an
// exit status.
int save_run(Session& session);

#endif
