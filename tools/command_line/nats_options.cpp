#include "command_line/nats_options.hpp"

namespace tool {
namespace {

// A password in an argument can be seen by every user of the machine.
std::string checkServers(const std::string& text) {
  for (const std::string& server : serversIn(text)) {
    if (server.find('@') != std::string::npos) {
      return "may not have a user or a password, which all users could see: use --creds";
    }
    if (server.empty() || server.find_first_of(" \t\n") != std::string::npos) {
      return "must be URLs such as nats://host:4222, separated by commas";
    }
  }
  return "";
}

}  // namespace

std::vector<std::string> serversIn(const std::string& text) {
  std::vector<std::string> servers;
  std::size_t begin = 0;
  for (std::size_t end = text.find(','); end != std::string::npos; end = text.find(',', begin)) {
    servers.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  servers.push_back(text.substr(begin));
  return servers;
}

CLI::Option* addNatsOptions(CLI::App& app, NatsOptions& options, const std::string& group) {
  CLI::Option* const servers =
      app.add_option("--nats", options.servers,
                     "The servers of the NATS cluster, such as nats://host:4222,\n"
                     "separated by commas")
          ->check(checkServers)
          ->type_name("URL")
          ->group(group);
  app.add_option("--creds", options.credentials,
                 "File with the credentials: of the form that NATS has for them, or\n"
                 "a line USER:PASSWORD. Only its owner may be allowed to read it")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--tls-ca", options.authority,
                 "File with the certificates that a server's must be signed with; the\n"
                 "connection is encrypted")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--tls-cert", options.certificate, "File with the client's certificate")
      ->type_name("FILE")
      ->group(group);
  app.add_option("--tls-key", options.key, "File with its private key")
      ->type_name("FILE")
      ->group(group);
  return servers;
}

std::string wrongUseOf(const NatsOptions& options) {
  if (options.certificate.empty() != options.key.empty()) {
    return "--tls-cert and --tls-key need each other";
  }
  for (const auto& [name, value] :
       {std::pair("--creds", options.credentials), std::pair("--tls-ca", options.authority),
        std::pair("--tls-cert", options.certificate)}) {
    if (!value.empty() && options.servers.empty()) {
      return std::string(name) + " needs --nats";
    }
  }
  return "";
}

std::vector<std::string> argumentsOf(const NatsOptions& options) {
  std::vector<std::string> arguments;
  for (const auto& [name, value] :
       {std::pair("--nats", options.servers), std::pair("--creds", options.credentials),
        std::pair("--tls-ca", options.authority), std::pair("--tls-cert", options.certificate),
        std::pair("--tls-key", options.key)}) {
    if (!value.empty()) {
      arguments.push_back(std::string(name) + "=" + value);
    }
  }
  return arguments;
}

}  // namespace tool
