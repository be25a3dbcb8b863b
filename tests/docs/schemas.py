"""JSON schemas as tests use them."""


def closed(schema):
    """Returns the schema in a form that rejects undocumented members."""
    if isinstance(schema, list):
        return [closed(each) for each in schema]
    if not isinstance(schema, dict):
        return schema
    made = {name: closed(each) for name, each in schema.items()}
    if made.get("type") == "object" and "properties" in made:
        made["additionalProperties"] = False
    return made
