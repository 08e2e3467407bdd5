#include "cli/requestItem.h"

namespace zks {

parallel::toolbox::Item requestItem(const ItemArgument& argument, const qxArray* value) {
  switch (argument.form) {
    case ItemArgument::Form::Array:
      return parallel::toolbox::arrayItem(value);
    case ItemArgument::Form::Message:
      return parallel::toolbox::messageItem(value);
    case ItemArgument::Form::Plain:
      return parallel::toolbox::plainItem(value);
    case ItemArgument::Form::File:
      return parallel::toolbox::fileItem(argument.text);
  }
  return {};
}

}  // namespace zks
