// A connection that can be closed while others still hold it: the framework's connections are this beside Invokable.
#pragma once

namespace agent::spf::core {

class Closable {
 public:
  virtual ~Closable() = default;

  // Ends the calls under way, whatever they are at: who waits for a reply or reads one gets Terminated, once it has
  // read what had arrived, and so does every call made afterwards, through its handler. Does not wait for handlers of
  // the service or writers of requests that still run; the connection's destructor does. Again: no effect.
  // Threads: any, those of the framework included; completion handlers run on it.
  virtual void close() noexcept = 0;
};

}  // namespace agent::spf::core
