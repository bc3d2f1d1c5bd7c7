#!/usr/bin/env bash
# libzsm exports its C interface and nothing else: every dynamic symbol it
# defines is a zsm_* function (or the version node), and every function zsm.h
# declares is among them.
#   check_exports.sh LIBRARY HEADER
set -euo pipefail
library=$1
header=$2
defined="$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | sort -u)"
leaked="$(echo "$defined" | grep -v -E '^(zsm_[a-z0-9_]+|ZSM_1)$' || true)"
if [ -n "$leaked" ]; then
  echo "libzsm exports more than its C interface:" >&2
  echo "$leaked" | c++filt | head -20 >&2 || true
  exit 1
fi
declared="$(grep 'ZSM_C_API' "$header" | grep -o -E 'zsm_[a-z0-9_]+\(' | tr -d '(' | sort -u)"
missing="$(comm -23 <(echo "$declared") <(echo "$defined"))"
if [ -n "$missing" ]; then
  echo "libzsm lacks functions zsm.h declares:" >&2
  echo "$missing" >&2
  exit 1
fi
echo "libzsm exports the $(echo "$declared" | wc -l) functions of zsm.h and nothing else"
