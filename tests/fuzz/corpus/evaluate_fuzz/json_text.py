import json
data = json.loads('{"a": [1, 2, {"b": null}], "c": "\\u00e9"}')
data["items"] = list(items)
text = json.dumps(data, sort_keys=True)
return json.loads(text) == data, text
