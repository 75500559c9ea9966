#include "postsession.h"

PostSession::PostSession(PlaylistItem *item, QWidget *parent)
    : Webpage(item, parent)
{
}
