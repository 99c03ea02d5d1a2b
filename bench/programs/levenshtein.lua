local function word(length, seed)
  local letters, made = {"a", "c", "g", "t"}, {}
  for i = 1, length do
    seed = (seed * 3877 + 29573) % 139968
    made[i] = letters[seed // 17 % 4 + 1]
  end
  return made
end
local function distance(a, b, length)
  local above = {}
  for j = 0, length do above[j + 1] = j end
  for i = 1, length do
    local row = {i}
    for j = 1, length do
      local best = above[j]
      if a[i] ~= b[j] then
        if above[j + 1] < best then best = above[j + 1] end
        if row[j] < best then best = row[j] end
        best = best + 1
      end
      row[j + 1] = best
    end
    above = row
  end
  return above[length + 1]
end

local length = math.tointeger(arg[1])
local first = word(length, 1)
for seed = 2, 5 do print(distance(first, word(length, seed), length)) end
