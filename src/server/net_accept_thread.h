// Takes the Wi-Fi phone's connection (and later ones that replace a dead connection) and hands it
// to the service with EVENT_CLIENT_CONNECTED.
#pragma once

#include <QThread>

struct PhoneServer;

class NetAcceptThread : public QThread
{
public:
    explicit NetAcceptThread(PhoneServer* server) : server_(server) {}
    ~NetAcceptThread() override = default;

protected:
    void run() override;

private:
    PhoneServer* server_;
};
