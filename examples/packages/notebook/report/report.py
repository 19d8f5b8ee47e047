"""Prints a value of the platform's memory, which it asks the host for."""

import json
import os
import pathlib
import sys
import urllib.request


def call(method, *params):
    token = pathlib.Path(os.environ["TARVIK_TOKEN_FILE"]).read_text().strip()
    request = urllib.request.Request(
        os.environ["TARVIK_URL"].rstrip("/") + "/rpc",
        data=json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params}).encode(),
        headers={"Authorization": "Bearer " + token, "Content-Type": "application/json"},
    )
    with urllib.request.urlopen(request, timeout=5) as response:
        answer = json.load(response)
    if "error" in answer:
        sys.exit(answer["error"]["message"])
    return answer["result"]


def main():
    key = sys.argv[1]
    print(key, "is", json.dumps(call("ZBMemory.getData", key)))


if __name__ == "__main__":
    main()
