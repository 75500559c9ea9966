#pragma once

// Registers the pictures built into the program (":/demo/...", ":/image/..."). The library is
// static, so the linker may drop the resource initialiser unless someone calls this.
void initResources();
