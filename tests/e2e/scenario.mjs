// The conversation both transports must carry: the handshake, the catalog and a few tools,
// with the texts checked exactly.
import assert from 'node:assert/strict';

export const TOOL_COUNT = 17;

// The text of a successful tool call; fails on isError or any other shape.
async function ok(client, name, args) {
  const result = await client.callTool({ name, arguments: args });
  assert.equal(result.isError, undefined, `${name} failed: ${JSON.stringify(result)}`);
  assert.equal(result.content.length, 1);
  assert.equal(result.content[0].type, 'text');
  return result.content[0].text;
}

// Runs the scenario on a connected client; returns the number of checks made.
export async function exercise(client) {
  let checks = 0;
  const check = (actual, expected) => {
    assert.deepEqual(actual, expected);
    ++checks;
  };

  check(client.getServerVersion(), { name: 'ostrevik-server', version: '0.1.0' });
  check(client.getServerCapabilities(), { tools: {} });
  check(client.getInstructions().startsWith('This server edits Zelth documents'), true);
  check(await client.ping(), {});

  const { tools } = await client.listTools();
  check(tools.length, TOOL_COUNT);
  check(tools.map((t) => t.name).slice(0, 3), ['describe', 'get_element', 'define_element']);
  check(tools.every((t) => t.inputSchema.type === 'object'), true);

  check(await ok(client, 'describe', {}), 'document: (unsaved)\n(empty)\n');
  check(await ok(client, 'define_element', { path: '/world', type: 'Xform' }), 'defined /world [Xform]');
  check(await ok(client, 'define_element', { path: '/world/ball', type: 'Sphere' }),
        'defined /world/ball [Sphere]');
  check(await ok(client, 'set_property', { path: '/world/ball', name: 'radius', value: 2 }),
        'set /world/ball.radius');
  check(await ok(client, 'set_property', { path: '/world/ball', name: 'color', value: [1, 0.5, 0] }),
        'set /world/ball.color (3 values)');
  check(await ok(client, 'set_property', { path: '/world/ball', name: 'label', value: 'hi "there"' }),
        'set /world/ball.label');
  check(await ok(client, 'get_element', { path: '/world/ball' }),
        'path: /world/ball\ntype: Sphere\nproperties:\n  color : float32[3] (3 elems)\n' +
        '  label : str = "hi "there""\n  radius : float64 = 2\nmetadata:\nchildren:\n');
  check(await ok(client, 'get_element', { path: '/world' }),
        'path: /world\ntype: Xform\nproperties:\nmetadata:\nchildren:\n  /world/ball\n');
  check(await ok(client, 'describe', {}),
        'document: (unsaved)\n  /world  [Xform]  0 props\n  /world/ball  [Sphere]  3 props\n');

  // A tool's failure arrives as a result, not as a protocol error.
  const missing = await client.callTool({ name: 'get_element', arguments: { path: '/nope' } });
  check(missing, { content: [{ type: 'text', text: 'no element at /nope' }], isError: true });
  const unknown = await client.callTool({ name: 'Describe', arguments: {} });
  check(unknown, { content: [{ type: 'text', text: 'unknown tool: Describe' }], isError: true });
  return checks;
}
