#pragma once

#include <QToolBar>

class LocationEdit;
class QAction;
class RestrictedWebView;

// The bar above a tab's view: home, back, forward, stop, address, go, reload, and optionally
// print and end of session.
class NavBar : public QToolBar
{
    Q_OBJECT

public:
    NavBar(RestrictedWebView *view, QWidget *parent);

    LocationEdit *locationEdit() const { return m_location; }
    // Where "?" searches go; %1 is the query.
    static QString searchTemplate();

Q_SIGNALS:
    void end();
    void printRequested();

public Q_SLOTS:
    void onLocationChanged();
    void onGoHome();
    void adjustLocation(bool ok);
    void adjustTitle(const QString &title);
    void setProgress(int progress);
    void setHistoryStatus();
    void onPrint();
    void onEnd();

private:
    RestrictedWebView *m_view;
    LocationEdit *m_location;
};
