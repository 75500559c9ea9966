#pragma once

class QObject;

// The event-loop depth of the GUI thread now (0 before the application's loop runs).
int currentLoopLevel();

// Deletes an object once every event loop opened after the object came into use (at `level`,
// from currentLoopLevel()) has returned. deleteLater() alone is not enough: called from inside
// a nested loop that the object itself runs (a dialog, a wait), it deletes the object inside
// that loop, under the frames still using it.
void deleteAfterLoops(QObject *object, int level);
