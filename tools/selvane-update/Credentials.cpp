#include "Credentials.h"

#include <fstream>
#include <map>

#include "Failure.h"

namespace update {

zorvelauth::Credentials loadCredentials(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw Failure(Exit::Usage, "cannot read the credentials file " + path);
  std::map<std::string, std::string> values;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    if (equals == std::string::npos)
      throw Failure(Exit::Usage,
                    "credentials file " + path + ": expected key=value, got '" + line + "'");
    values[line.substr(0, equals)] = line.substr(equals + 1);
  }
  const std::string id = values["access_key_id"], secret = values["secret_access_key"];
  if (id.empty() || secret.empty())
    throw Failure(Exit::Usage,
                  "credentials file " + path + " needs access_key_id= and secret_access_key=");
  try {
    return zorvelauth::Credentials(id, secret);
  } catch (const std::invalid_argument& e) {
    throw Failure(Exit::Usage, "credentials file " + path + ": " + e.what());
  }
}

}  // namespace update
