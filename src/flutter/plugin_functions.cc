#include "flutter/plugin_functions.h"

#include <dlfcn.h>

#include <cctype>

namespace corvane::flutter {

std::string SnakeCase(const std::string& camel) {
  std::string out;
  for (size_t i = 0; i < camel.size(); ++i) {
    const char c = camel[i];
    if (std::isupper(static_cast<unsigned char>(c))) {
      const bool after_lower = i > 0 && !std::isupper(static_cast<unsigned char>(camel[i - 1]));
      // The last capital of a run starts the next word: "FPPPackage" -> "fpp_package".
      const bool ends_run = i > 0 && std::isupper(static_cast<unsigned char>(camel[i - 1])) &&
                            i + 1 < camel.size() &&
                            std::islower(static_cast<unsigned char>(camel[i + 1]));
      if (!out.empty() && (after_lower || ends_run)) out += '_';
      out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else {
      out += c;
    }
  }
  return out;
}

std::vector<std::string> RegisterFunctionNames(const std::string& registrar) {
  const std::string base = SnakeCase(registrar);
  std::vector<std::string> stems = {base};
  for (const std::string word : {"_darwin", "_macos"}) {
    const size_t at = base.find(word + "_");
    if (at == std::string::npos) continue;
    std::string linux_stem = base;
    linux_stem.replace(at, word.size(), "_linux");
    stems.push_back(linux_stem);
    std::string plain = base;
    plain.erase(at, word.size());
    stems.push_back(plain);
  }
  std::vector<std::string> names;
  for (const std::string& stem : stems) names.push_back(stem + "_register_with_registrar");
  return names;
}

RegisterFunction FindRegisterFunction(const std::string& registrar) {
  for (const std::string& name : RegisterFunctionNames(registrar)) {
    if (void* symbol = dlsym(RTLD_DEFAULT, name.c_str())) {
      return reinterpret_cast<RegisterFunction>(symbol);
    }
  }
  return nullptr;
}

}  // namespace corvane::flutter
