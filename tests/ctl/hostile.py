"""Names and values that try to leave the place where they are shown."""
import base64

TEXTS = ["</script><script>window.taken=1</script>", "<!--<script>", "--><img src=x onerror=window.taken=1>", "]]></svg>",
         "{{data}}@script@{{connect}}", "&lt;b&gt;&amp;", "\"' onload='window.taken=1", "\\\"];x->y[label=\"", "\\N\\G\\l", "__proto__",
         "javascript:window.taken=1", "\u2028\u2029\u202e\u200b", "%3Cscript%3E%00", "constructor", "\u0130\u1e9e\U0001f600" * 9,
         "n" * 300]
RAW = b"\xff\x1b[2J\x07"


def document():
    """A cluster document with a database for each text, which has it for its own name and in it."""
    databases = []
    for number, text in enumerate(TEXTS):
        name = ("h%d" % number + text).replace(".", "")
        runs = [{"name": name, "enabled": number % 2 == 0}]
        databases.append({
            "name": name, "enabled": True, "spfile": text, "env": ["A=" + text], "domain": None,
            "domain_base64": base64.b64encode(text.encode() + RAW).decode(),
            "instances": [{"name": name, "node": text, "enabled": True}, {"name": "other", "node": text, "enabled": False}],
            "services": [{"name": name, "enabled": number % 3 > 0, "preferred": runs, "available": [{"name": "other"}]}]})
    return {"format": "keyview-cluster", "version": 1, "databases": databases}
