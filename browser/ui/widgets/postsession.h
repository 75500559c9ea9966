#pragma once

#include "webpage.h"

// The page shown after a browsing session; it behaves exactly like a slideshow web page.
class PostSession : public Webpage
{
    Q_OBJECT

public:
    PostSession(PlaylistItem *item, QWidget *parent);
};
