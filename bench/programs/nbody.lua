local function attract(a, b, days)
  local dx, dy, dz = a.x - b.x, a.y - b.y, a.z - b.z
  local pull = days / (dx * dx + dy * dy + dz * dz) ^ 1.5
  a.vx = a.vx - dx * b.mass * pull
  b.vx = b.vx + dx * a.mass * pull
  a.vy = a.vy - dy * b.mass * pull
  b.vy = b.vy + dy * a.mass * pull
  a.vz = a.vz - dz * b.mass * pull
  b.vz = b.vz + dz * a.mass * pull
end

local bodies = {
  {mass = 39.478, x = 0.0, y = 0.0, z = 0.0, vx = 0.0, vy = 0.0, vz = 0.0},
  {mass = 0.0377, x = 4.841, y = -1.160, z = -0.1036, vx = 0.6063, vy = 2.8120, vz = -0.0252},
  {mass = 0.0113, x = 8.343, y = 4.125, z = -0.4035, vx = -1.0108, vy = 1.8257, vz = 0.0084},
  {mass = 0.0017, x = 12.894, y = -15.111, z = -0.2233, vx = 1.0828, vy = 0.8687, vz = -0.0108},
  {mass = 0.0020, x = 15.380, y = -25.919, z = 0.1793, vx = 0.9791, vy = 0.5946, vz = -0.0348},
}
for step = 1, math.tointeger(arg[1]) do
  for i = 1, 4 do
    for j = i + 1, 5 do attract(bodies[i], bodies[j], 0.01) end
  end
  for _, body in ipairs(bodies) do
    body.x = body.x + 0.01 * body.vx
    body.y = body.y + 0.01 * body.vy
    body.z = body.z + 0.01 * body.vz
  end
end
for _, body in ipairs(bodies) do
  print(string.format("%.6f %.6f %.6f", body.x, body.y, body.z))
end
