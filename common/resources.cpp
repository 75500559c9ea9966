#include "resources.h"

#include <QtGlobal>

void initResources()
{
    // Registering twice would list every picture twice.
    static bool registered = false;
    if (registered)
        return;
    Q_INIT_RESOURCE(resources);
    registered = true;
}
