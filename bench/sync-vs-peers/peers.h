// peers.h: the two other synchronisers the bench compares with, each with its own server
// process on a free loopback port behind a counting relay: a module of an rsync daemon
// pushed to by `rsync -a`, and a Unison socket server synchronised with by
// `unison -batch -auto`. A client process runs per step; the servers live for the tool.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness/counting-relay.h"
#include "support/process.h"
#include "tool.h"

// What both peers share: the server process, the relay, the step's measuring and the
// check of the target folder afterwards.
class PeerTool : public Tool {
  public:
    bool Start(const std::string& root) override;
    std::string Source() const override { return m_root + "/src"; }
    Figures Run(const Step& step) override;

  protected:
    // Writes what the server needs under m_root and gives its command and environment for
    // `port`.
    virtual std::vector<std::string> ServerCommand(int port, std::vector<std::string>& env) = 0;
    // The client's command and environment for one step, talking to the relay's port.
    virtual std::vector<std::string> ClientCommand(const Step& step, int port,
                                                   std::vector<std::string>& env) = 0;
    // Waits until the server serves; by default, until its port accepts.
    virtual bool Ready(ChildProcess& server, int port);
    std::string Target() const { return m_root + "/dst"; }

    std::string m_root;

  private:
    std::unique_ptr<ChildProcess> m_server;
    std::unique_ptr<CountingRelay> m_relay;
};

class RsyncTool : public PeerTool {
  public:
    const char* Name() const override { return "rsync"; }

  protected:
    std::vector<std::string> ServerCommand(int port, std::vector<std::string>& env) override;
    std::vector<std::string> ClientCommand(const Step& step, int port,
                                           std::vector<std::string>& env) override;
};

class UnisonTool : public PeerTool {
  public:
    const char* Name() const override { return "unison"; }

  protected:
    // A bare probe connection would be taken for a client: its banner is waited for instead.
    bool Ready(ChildProcess& server, int port) override;
    std::vector<std::string> ServerCommand(int port, std::vector<std::string>& env) override;
    std::vector<std::string> ClientCommand(const Step& step, int port,
                                           std::vector<std::string>& env) override;
};

// The path of `program` on PATH; empty when it is not installed.
std::string FindProgram(const std::string& program);
